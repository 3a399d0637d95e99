// The precompiled headers of the tests need something that is compiled.
