#include <gtest/gtest.h>

#include "gltk/console.h"

int main(int argc, char** argv) {
  GLTK::Console::init_locale();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
