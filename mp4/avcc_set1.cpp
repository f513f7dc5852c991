// The avcC operations on the parameter-set model: filled in by the H.264 work.
