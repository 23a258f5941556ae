// The donor of the test programs' precompiled header (tests/CMakeLists.txt):
// compiling this empty file builds the header the test programs reuse.
