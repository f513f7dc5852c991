// Parameter-set model: filled in by the H.264 work.
