#include "PlistText.h"

#include <cstdio>

#include "PlistTreePath.h"

namespace velnor {
namespace {

constexpr std::string_view kNonCharacterPrefix = "\xEF\xBF";  // U+FFC0 to U+FFFF in UTF-8

bool isUncarriableControl(unsigned char byte) {
    return byte < 0x20 && byte != '\t' && byte != '\n';
}

// U+FFFE or U+FFFF starting at position.
bool isNonCharacterAt(std::string_view text, std::size_t position) {
    if (text.substr(position, 2) != kNonCharacterPrefix || position + 2 >= text.size()) {
        return false;
    }
    const auto last = static_cast<unsigned char>(text[position + 2]);
    return last == 0xBE || last == 0xBF;
}

class UncarriableTextFinder {
  public:
    std::optional<std::string> find(const PlistValue& value) {
        if (const std::string* text = value.asString()) {
            return check("the string", *text);
        }
        if (const PlistArray* array = value.asArray()) {
            for (std::size_t index = 0; index < array->size(); ++index) {
                path_.enterIndex(index);
                auto found = find((*array)[index]);
                path_.leave();
                if (found) {
                    return found;
                }
            }
        }
        if (const PlistDictionary* dictionary = value.asDictionary()) {
            for (const auto& [key, entry] : *dictionary) {
                if (auto found = check("a key", key)) {
                    return found;
                }
                path_.enterKey(key);
                auto found = find(entry);
                path_.leave();
                if (found) {
                    return found;
                }
            }
        }
        return std::nullopt;
    }

  private:
    std::optional<std::string> check(const char* what, std::string_view text) {
        const std::size_t position = uncarriableCharacterAt(text);
        if (position == std::string_view::npos) {
            return std::nullopt;
        }
        return std::string(what) + " " + path_.describe() + " holds " +
               characterNameAt(text, position);
    }

    PlistTreePath path_;
};

}  // namespace

std::size_t uncarriableCharacterAt(std::string_view text) {
    for (std::size_t position = 0; position < text.size(); ++position) {
        if (isUncarriableControl(static_cast<unsigned char>(text[position])) ||
            isNonCharacterAt(text, position)) {
            return position;
        }
    }
    return std::string_view::npos;
}

std::string characterNameAt(std::string_view text, std::size_t position) {
    unsigned code = static_cast<unsigned char>(text[position]);
    if (isNonCharacterAt(text, position)) {
        code = 0xFF00 | (0xC0 + (static_cast<unsigned char>(text[position + 2]) & 0x3F));
    }
    char name[16];
    std::snprintf(name, sizeof name, "U+%04X", code);
    return name;
}

std::optional<std::string> findUncarriableText(const PlistValue& value) {
    return UncarriableTextFinder().find(value);
}

}  // namespace velnor
