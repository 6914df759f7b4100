#include "base/fuzz/XmlFuzzSetup.h"

#include <libxml/tree.h>

void SetUpXmlForFuzzing() {
    xmlSetBufferAllocationScheme(XML_BUFFER_ALLOC_DOUBLEIT);
}
