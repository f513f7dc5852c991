// TIFF/Exif byte builder (filled in with the Exif work).
#pragma once
