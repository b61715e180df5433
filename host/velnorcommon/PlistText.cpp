#include "PlistText.h"

#include <cstdint>
#include <cstdio>

#include "PlistTreePath.h"

namespace velnor {
namespace {

// The code point of the valid UTF-8 sequence of length at position.
std::uint32_t codePointAt(std::string_view text, std::size_t position, std::size_t length) {
    static constexpr unsigned char kLeadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    std::uint32_t code = static_cast<unsigned char>(text[position]) & kLeadBits[length];
    for (std::size_t i = 1; i < length; ++i) {
        code = (code << 6) | (static_cast<unsigned char>(text[position + i]) & 0x3F);
    }
    return code;
}

// Whether XML 1.0 can write the character as itself, so that a reader gets it back unchanged.
bool isXmlCharacter(std::uint32_t code) {
    return (code >= 0x20 || code == '\t' || code == '\n') && code != 0xFFFE && code != 0xFFFF;
}

class UncarriableTextFinder {
  public:
    explicit UncarriableTextFinder(PlistFormat format) : format_(format) {}

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
        const std::size_t position = uncarriableCharacterAt(text, format_);
        if (position == std::string_view::npos) {
            return std::nullopt;
        }
        return std::string(what) + " " + path_.describe() + " holds " +
               characterNameAt(text, position);
    }

    PlistFormat format_;
    PlistTreePath path_;
};

}  // namespace

std::size_t utf8LengthAt(std::string_view text, std::size_t position) {
    const auto lead = static_cast<unsigned char>(text[position]);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char low = 0x80;   // the range of the second byte, which rules out overlong forms,
    unsigned char high = 0xBF;  // surrogates and what lies above U+10FFFF
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (text.size() - position < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[position + i]);
        if (byte < (i == 1 ? low : 0x80) || byte > (i == 1 ? high : 0xBF)) {
            return 0;
        }
    }
    return length;
}

const char* formatName(PlistFormat format) {
    return format == PlistFormat::Binary ? "a binary property list" : "an XML property list";
}

std::size_t uncarriableCharacterAt(std::string_view text, PlistFormat format) {
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t length = utf8LengthAt(text, position);
        if (length == 0 || text[position] == '\0') {
            return position;
        }
        if (format == PlistFormat::Xml && !isXmlCharacter(codePointAt(text, position, length))) {
            return position;
        }
        position += length;
    }
    return std::string_view::npos;
}

std::string characterNameAt(std::string_view text, std::size_t position) {
    const std::size_t length = utf8LengthAt(text, position);
    char name[24];
    if (length == 0) {
        std::snprintf(name, sizeof name, "the byte 0x%02X",
                      static_cast<unsigned>(static_cast<unsigned char>(text[position])));
    } else {
        std::snprintf(name, sizeof name, "U+%04X",
                      static_cast<unsigned>(codePointAt(text, position, length)));
    }
    return name;
}

std::optional<std::string> findUncarriableText(const PlistValue& value, PlistFormat format) {
    return UncarriableTextFinder(format).find(value);
}

}  // namespace velnor
