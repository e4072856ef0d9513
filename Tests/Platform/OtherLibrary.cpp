// A library that is not the lossless module: loading it as one must fail.
extern "C" __attribute__((visibility("default"))) int quillmereOtherLibrary() { return 1; }
