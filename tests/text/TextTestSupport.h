#pragma once
// What the text-format tests share: the sample files, read in place (wherever the build
// directory is), a session over the sample catalog, read once, and the round trip that
// every printed request must survive.

#include <filesystem>
#include <string>

class ARpGateway;
class RqNode;

namespace texttest {

std::filesystem::path RepositoryRoot();
std::string ReadText(const std::filesystem::path& path);
const ARpGateway& SampleGateway();

// Prints `tree`, reads the print and prints again: empty when both prints agree and the tree
// read equals `tree` by RqTextSameTree, else what went wrong, with the print.
std::string RoundTripFailure(const RqNode& tree, const ARpGateway* rp);

}  // namespace texttest
