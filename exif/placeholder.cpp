// The Exif walker: filled in by the Exif work.
