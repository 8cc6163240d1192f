// zin-bench [folder]: the inflate comparison over every PNG of a folder (by default the
// project's benchmark images).
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "inflate_bench.h"

int main(int argc, char** argv) {
    const std::string folder = argc > 1 ? argv[1] : KALPNG_TESTDATA "/bench";
    std::vector<std::string> files;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".png") == 0)
                files.push_back(folder + "/" + name);
        }
        closedir(dir);
    }
    if (files.empty()) {
        std::fprintf(stderr, "no PNG files in %s\n", folder.c_str());
        return 1;
    }
    std::sort(files.begin(), files.end());
    return zinbench::RunInflateComparison(files) ? 0 : 1;
}
