// make_golden.cpp: writes the golden database into an empty directory. Run by hand, once; see
// README.md.

#include <cstdio>

#include "database/golden_steps.h"
#include "nim/path.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_golden <empty directory>\n");
        return 2;
    }
    // The database lies in <directory>/db/database.
    PathSetHome(argv[1]);
    if (!golden::WriteDatabase()) {
        std::fprintf(stderr, "failed\n");
        return 1;
    }
    std::printf("%s/db/%s\n", argv[1], golden::DATABASE);
    return 0;
}
