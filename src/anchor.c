/* The library's code is in the archive; a shared library target wants a source of its own. */
typedef int pki_anchor;
