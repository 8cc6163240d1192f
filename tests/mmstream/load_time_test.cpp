// What the library's load-time initialiser has done before main: this program calls no
// registration function before it checks.
#include <gtest/gtest.h>

#include <climits>
#include <typeinfo>

#include "MMFileStream.h"
#include "MMPageArrayStream.h"
#include "kau.h"
#include "mmstream.h"

#if defined(__SANITIZE_ADDRESS__)
// An impossible allocation must answer null here, as it does without the sanitizer.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

namespace {

TEST(LoadTime, StreamKindsAreRegistered) {
    MMAttri records[3];
    MMAttriFromAny(&records[0], mmIdData, nullptr, 0);
    MMAttriFromU32(&records[1], mmIdPageSize, 16);
    MMAttriFromString(&records[2], mmIdFileName, "/tmp/none");
    const struct {
        unsigned first, count;
        const std::type_info& kind;
    } cases[] = {
        {0, 1, typeid(MMByteStream)},
        {0, 2, typeid(MMPageArrayStream)},
        {2, 1, typeid(MMFileStream)},
    };
    for (const auto& c : cases) {
        MMStream* s = MMStreamNew(records + c.first, c.count);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(typeid(*s), c.kind);
        MMStreamDelete(&s);
    }
    // Already registered: the remembered results.
    EXPECT_EQ(MMByteStreamRegistered(), 1);
    EXPECT_EQ(MMFileStreamRegistered(), 1);
    EXPECT_EQ(MMPageArrayStreamRegistered(), 1);
}

TEST(LoadTime, NewAnswersMMAllocateMemory) {
    // malloc answers an impossible size with null; the array new it replaces would have thrown,
    // and New would have printed a report.
    testing::internal::CaptureStdout();
    EXPECT_EQ(kau::mem::New(ULONG_MAX), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    // Memory of New and MMAllocate is interchangeable.
    MMFree(kau::mem::New(32));
    kau::mem::Delete(MMAllocate(32));
}

}  // namespace
