// The sensor loaders: filled in by the sensor work.
