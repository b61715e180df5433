#include "PropertyListFile.h"
#include "platform/FileSystem.h"

namespace velnor::platform {

support::Result<PlistDictionary> readPropertyListDictionary(const std::string& path) {
    return velnor::readPropertyListDictionary(path);
}

support::Status writePropertyListDictionary(const std::string& path,
                                            const PlistDictionary& dictionary) {
    return velnor::writePropertyListAtomically(path, PlistValue(dictionary));
}

}  // namespace velnor::platform
