# The installed form of kalpng: the plug-in (its own folder's build file), the public headers
# under include/kalpng, one shared library libkalpng.so holding every library, the static
# archives, a pkg-config file and a CMake package.

# Libraries go to lib/<multiarch> under every prefix, where the Debian linker and pkg-config
# look, not only under /usr.
if(CMAKE_LIBRARY_ARCHITECTURE)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# In the order of their load-time initialisers: the allocator hooks, the stream kinds, the
# image tables.
set(KALPNG_LIBRARIES kau mmstream zin kpng kiu)

# Links every library whole into a shared object and exports only the public interface,
# cmake/kalpng.map. The archives are named by file inside the whole-archive region, because
# the libraries' own dependencies name the targets again after it (which then add nothing):
# CMake refuses one target with two link features.
function(kalpng_whole_shared_object target)
    set(archives)
    foreach(library ${KALPNG_LIBRARIES})
        list(APPEND archives "$<TARGET_FILE:${library}>")
    endforeach()
    string(JOIN "," archives ${archives})
    target_link_libraries(${target} PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,${archives}>"
        ${KALPNG_LIBRARIES})
    set(map ${PROJECT_SOURCE_DIR}/cmake/kalpng.map)
    target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()

# Everything below needs the libraries' targets, so it runs once the whole tree is read.
function(kalpng_install)
    # Every object comes from the archives; CMake still wants one source of the library's own.
    set(no_sources ${PROJECT_BINARY_DIR}/kalpng_whole_archives.cpp)
    file(CONFIGURE OUTPUT ${no_sources}
        CONTENT "// libkalpng.so is made of the static libraries.\n")
    add_library(kalpng SHARED ${no_sources})
    kalpng_whole_shared_object(kalpng)
    set_target_properties(kalpng PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

    set(kalpng_png_dir ${PROJECT_SOURCE_DIR}/gstreamer/gst-plugins-extension/Codec/SW/PNG/kpng)
    install(FILES
        ${PROJECT_SOURCE_DIR}/common/kau/kau.h
        ${PROJECT_SOURCE_DIR}/common/kiu/mmstream.h
        ${PROJECT_SOURCE_DIR}/common/kiu/MMFileStream.h
        ${PROJECT_SOURCE_DIR}/common/kiu/MMPageArrayStream.h
        ${PROJECT_SOURCE_DIR}/common/kiu/kiu.h
        ${PROJECT_SOURCE_DIR}/inflate/zin.h
        ${kalpng_png_dir}/kpng.h
        ${kalpng_png_dir}/CPNG.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kalpng)
    install(TARGETS kalpng LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    # The archives keep their short names in a folder of their own, out of the linker's way.
    install(TARGETS ${KALPNG_LIBRARIES} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/kalpng)

    # pkg-config wants absolute paths, and the prefix is only final at install time.
    install(CODE "
        set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
        set(libdir \"${CMAKE_INSTALL_LIBDIR}\")
        set(includedir \"${CMAKE_INSTALL_INCLUDEDIR}\")
        set(version \"${PROJECT_VERSION}\")
        configure_file(\"${PROJECT_SOURCE_DIR}/cmake/kalpng.pc.in\"
                       \"${PROJECT_BINARY_DIR}/kalpng.pc\" @ONLY)
        file(INSTALL \"${PROJECT_BINARY_DIR}/kalpng.pc\"
             DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")")

    set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kalpng)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kalpngConfig.cmake.in
        ${PROJECT_BINARY_DIR}/kalpngConfig.cmake INSTALL_DESTINATION ${package_dir})
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/kalpngConfigVersion.cmake
        COMPATIBILITY SameMajorVersion)
    install(FILES
        ${PROJECT_BINARY_DIR}/kalpngConfig.cmake ${PROJECT_BINARY_DIR}/kalpngConfigVersion.cmake
        DESTINATION ${package_dir})
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL kalpng_install)
