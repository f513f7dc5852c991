// Builders for the camera's sensor sample boxes (filled in with the sensor work).
#pragma once
