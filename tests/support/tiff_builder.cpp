#include "tests/support/tiff_builder.h"
