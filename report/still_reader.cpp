// JPEG and DNG stills: filled in with the Exif work.
