// Fuzzes the catalog reader: a catalog that reads must print, and its print must read back
// and print the same.

#include <string>

#include "FuzzSupport.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    rqfuzz::NodeBalance balance;
    std::string printed;
    try {
        printed =
            RqCatalogText::Write(RqCatalogText::Read(rqfuzz::AsText(data, size), "fuzz.catalog"));
    } catch (const RqTextError&) {
        return 0;
    }
    std::string again;
    try {
        again = RqCatalogText::Write(RqCatalogText::Read(printed, "printed.catalog"));
    } catch (const RqTextError& error) {
        rqfuzz::Fail("the print of a catalog does not read",
                     std::string(error.what()) + "\n" + printed);
    }
    if (again != printed)
        rqfuzz::Fail("a catalog prints differently after a round trip",
                     printed + "\n----\n" + again);
    return 0;
}
