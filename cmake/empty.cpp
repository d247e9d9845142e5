// The shared library is assembled from the module archives; it has no source of its own.
