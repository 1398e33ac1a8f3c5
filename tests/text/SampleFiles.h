#pragma once
// The sample files the text-format tests read in place (wherever the build directory is):
// the repository root, a file's bytes, and a session over the sample catalog, read once.

#include <filesystem>
#include <string>

class ARpGateway;

namespace samplefiles {

std::filesystem::path RepositoryRoot();
std::string ReadText(const std::filesystem::path& path);
const ARpGateway& SampleGateway();

}  // namespace samplefiles
