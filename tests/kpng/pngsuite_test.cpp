// PngSuite conformance: every valid file decodes through every input path to libpng's pixels
// under the expansion rules; every broken file is refused with a report.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "png_support.h"

namespace pngtest {
namespace {

std::vector<std::string> SuiteFiles() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(KALPNG_TESTDATA "/pngsuite")) {
        while (dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name.size() > 4 && name.substr(name.size() - 4) == ".png") names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class PngSuite : public testing::TestWithParam<std::string> {};

TEST_P(PngSuite, DecodesLikeTheReferenceOrIsRefused) {
    const std::string name = GetParam();
    const Bytes png = ReadFile(KALPNG_TESTDATA "/pngsuite/" + name);
    ASSERT_FALSE(png.empty());
    const bool broken = name[0] == 'x';
    const Reference reference = broken ? Reference{} : ReferenceDecode(png);
    ASSERT_EQ(reference.ok, !broken);
    for (Source source : {Source::Memory, Source::PageArrayStream, Source::FileStream}) {
        SCOPED_TRACE(SourceName(source));
        const Decoded decoded = Decode(png, source);
        if (broken) {
            EXPECT_EQ(decoded.result, 0);
            EXPECT_NE(decoded.printed.find("?!exception@ "), std::string::npos);
            continue;
        }
        ASSERT_EQ(decoded.result, 1) << decoded.printed;
        EXPECT_EQ(decoded.printed, "");
        EXPECT_EQ(decoded.width, reference.width);
        EXPECT_EQ(decoded.height, reference.height);
        EXPECT_TRUE(decoded.rgba == reference.rgba);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, PngSuite, testing::ValuesIn(SuiteFiles()),
                         [](const testing::TestParamInfo<std::string>& info) {
                             return info.param.substr(0, info.param.size() - 4);
                         });

TEST(PngSuiteData, IsPresent) {
    EXPECT_EQ(SuiteFiles().size(), 175u);
}

}  // namespace
}  // namespace pngtest
