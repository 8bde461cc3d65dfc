// Stands in for a layer whose sources are all headers.
