# Writes OUTPUT, a C++ source that holds each file of ASSETS (a list of paths) as a raw string
# under its name, with the Content-Type that its extension calls for, for findWebAsset.
set(entries "")
foreach(path IN LISTS ASSETS)
  get_filename_component(name "${path}" NAME)
  get_filename_component(extension "${path}" LAST_EXT)
  if(extension STREQUAL ".html")
    set(type "text/html; charset=utf-8")
  elseif(extension STREQUAL ".css")
    set(type "text/css; charset=utf-8")
  else()
    set(type "text/javascript; charset=utf-8")
  endif()
  file(READ "${path}" body)
  string(APPEND entries "    {\"/${name}\", \"${type}\", R\"velnor_asset(${body})velnor_asset\"},\n")
endforeach()
file(WRITE "${OUTPUT}.new" "// Generated from host/velnord/web/ when velnord is built.
#include \"WebAssets.h\"

namespace velnor::host {
namespace {
const WebAsset kAssets[] = {
${entries}};
}  // namespace

const WebAsset* findWebAsset(std::string_view path) {
    for (const WebAsset& asset : kAssets) {
        if (asset.path == path) {
            return &asset;
        }
    }
    return nullptr;
}

}  // namespace velnor::host
")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
