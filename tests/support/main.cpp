// Every test program runs in a private sandbox root, so that the process-wide
// store never reads a real configuration file or property.
#include <gtest/gtest.h>

#include <stdlib.h>

#include "TempRoot.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    vord::test::TempRoot root;
    setenv("VORD_ROOT", root.path().c_str(), 1);
    return RUN_ALL_TESTS();
}
