#include "PropertyListFile.h"
#include "platform/FileSystem.h"

namespace velnor::platform {

std::optional<PlistDictionary> readPropertyListDictionary(const std::string& path) {
    return velnor::readPropertyListDictionary(path);
}

bool writePropertyListDictionary(const std::string& path, const PlistDictionary& dictionary) {
    return velnor::writePropertyListAtomically(path, PlistValue(dictionary));
}

}  // namespace velnor::platform
