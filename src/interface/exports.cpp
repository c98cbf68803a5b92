// Placeholder so the shared library builds; the exported functions follow.
