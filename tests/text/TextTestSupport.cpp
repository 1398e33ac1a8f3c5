#include "TextTestSupport.h"

#include <fstream>
#include <memory>
#include <sstream>

#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"

namespace texttest {

std::filesystem::path RepositoryRoot() {
    return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
}

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

const ARpGateway& SampleGateway() {
    static const RqCatalog catalog =
        RqCatalogText::Read(ReadText(RepositoryRoot() / "examples/sales.catalog"), "sales.catalog");
    static const std::unique_ptr<RpSession> session = catalog.MakeSession();
    return *session;
}

std::string RoundTripFailure(const RqNode& tree, const ARpGateway* rp) {
    std::string printed;
    try {
        printed = RqTextWriter::Write(tree, rp);
        Heap<RqHandleNode> back(RqTextReader::Read(printed, "printed.rq", rp));
        const std::string again = RqTextWriter::Write(*back, rp);
        if (again != printed)
            return "the second print differs:\n" + again + "\nfirst print:\n" + printed;
        std::string difference;
        if (!RqTextSameTree(tree, *back, &difference))
            return "the tree read differs: " + difference + "\n" + printed;
    } catch (const RqTextError& error) {
        return std::string("the print does not read back: ") + error.what() + "\n" + printed;
    }
    return std::string();
}

}  // namespace texttest
