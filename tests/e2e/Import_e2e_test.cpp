// (to be written)
