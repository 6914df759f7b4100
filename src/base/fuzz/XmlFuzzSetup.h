#pragma once

// Prepares libxml2 for the reader fuzz targets; call it once, before any XML is read.
//
// libxml2 grows the buffer in which it gathers a node's text by exactly what each piece
// needs, one realloc per piece. The C library's realloc extends a large block in place, so in
// a run that costs next to nothing; AddressSanitizer's realloc copies the whole block every
// time, which makes the text of an element made of many entity references quadratic to build
// and lets a few kilobytes of input time out. Under the fuzzer the buffers grow by doubling
// instead, so an input costs about what it costs in a run.
void SetUpXmlForFuzzing();
