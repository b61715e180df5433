// The temporary files of whole-file replacements: a new file is written beside the one it
// replaces as ".NAME.XXXXXX", flushed, then renamed over NAME, so that a reader sees the old file
// or the new one and never a mix.
//
// A write killed before its rename leaves its temporary file behind; the next write of the same
// file removes such leftovers first. Each write has a name of its own rather than a fixed one, so
// two writers never share a file: a writer whose temporary file is removed fails whole, and never
// renames another's half-written file into place.
#pragma once

#include <string>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::support {

// A new, empty temporary file for finalName in the folder open at folder, created with O_EXCL
// and O_NOFOLLOW and readable by its creator alone; its name in *name.
Result<UniqueFd> createTemporaryFile(int folder, const std::string& finalName, std::string* name);

// Removes what earlier writes of finalName left in the folder open at folder. A folder of that
// name stays; nothing is followed, since unlinkat removes the entry itself.
void removeLeftTemporaries(int folder, const std::string& finalName);

// The new file of one replacement: a temporary file beside the file it replaces, removed again
// unless it has been renamed into place. Every whole-file replacement of the host writes one.
class ReplacementFile {
  public:
    // A temporary file for finalName in the folder open at folder, which may be a path
    // descriptor: the folder is opened again to be listed and flushed. What earlier writes of
    // finalName left there is removed first. shownFolder names the folder in messages.
    ReplacementFile(int folder, std::string finalName, const std::string& shownFolder);
    ~ReplacementFile();
    ReplacementFile(const ReplacementFile&) = delete;
    ReplacementFile& operator=(const ReplacementFile&) = delete;

    // The new file, or why it could not be created.
    const Result<UniqueFd>& created() const { return created_; }
    // The temporary file's name in its folder; empty when none was drawn.
    const std::string& temporaryName() const { return temporary_; }
    // Only once created.
    UniqueFd& file() { return *created_; }
    int fd() const { return created_->get(); }

    // Renames the new file over the one it replaces and makes the rename durable; false, with
    // errno saying why, when the rename fails.
    bool renameIntoPlace();

  private:
    std::string finalName_;
    std::string temporary_;
    UniqueFd folder_;
    Result<UniqueFd> created_ = UniqueFd();
    bool renamed_ = false;
};

}  // namespace velnor::support
