#include "SampleFiles.h"

#include <fstream>
#include <memory>
#include <sstream>

#include "Query/Optimizer/RequestText/SQORTextCatalog.h"

namespace samplefiles {

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

}  // namespace samplefiles
