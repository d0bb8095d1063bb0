// The certImport executable has no code of its own: its entry point, main,
// is defined in libvardotools.so, which this program links.
