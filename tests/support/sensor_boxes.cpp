#include "tests/support/sensor_boxes.h"
