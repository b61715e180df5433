// Where a value sits in a property-list tree, as messages show it: keys quoted, array positions
// bare, as in: under "Outer" / 2.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velnor {

class PlistTreePath {
  public:
    void enterKey(std::string_view key) { steps_.push_back('"' + std::string(key) + '"'); }
    void enterIndex(std::uint64_t index) { steps_.push_back(std::to_string(index)); }
    void leave() { steps_.pop_back(); }

    std::string describe() const {
        if (steps_.empty()) {
            return "at the top level";
        }
        std::string text = "under ";
        for (std::size_t i = 0; i < steps_.size(); ++i) {
            text += (i == 0 ? "" : " / ") + steps_[i];
        }
        return text;
    }

  private:
    std::vector<std::string> steps_;
};

}  // namespace velnor
