# Install rules come last, when every target exists.
