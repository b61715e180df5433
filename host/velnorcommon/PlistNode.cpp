#include "PlistNode.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "WholeFile.h"

namespace velnor {
namespace {

// Where a value sits in its tree, as messages show it: keys quoted, array positions bare.
class TreePath {
  public:
    void enterKey(const char* key) { steps_.push_back('"' + std::string(key) + '"'); }
    void enterIndex(std::uint32_t index) { steps_.push_back(std::to_string(index)); }
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

const char* kindNameOfNode(plist_type type) {
    switch (type) {
        case PLIST_BOOLEAN:
            return "boolean";
        case PLIST_UINT:
            return "integer";
        case PLIST_REAL:
            return "real";
        case PLIST_STRING:
            return "string";
        case PLIST_ARRAY:
            return "array";
        case PLIST_DICT:
            return "dictionary";
        case PLIST_DATE:
            return "date";
        case PLIST_DATA:
            return "data";
        case PLIST_KEY:
            return "key";
        case PLIST_UID:
            return "uid";
        case PLIST_NONE:
            break;
    }
    return "none";
}

struct FreeWithFree {
    void operator()(void* memory) const { std::free(memory); }
};

class NodeConverter {
  public:
    explicit NodeConverter(std::string* error) : error_(error) {}

    std::optional<PlistValue> convert(plist_t node) {
        switch (plist_get_node_type(node)) {
            case PLIST_BOOLEAN:
                return booleanOf(node);
            case PLIST_UINT:
                return integerOf(node);
            case PLIST_STRING:
                return PlistValue(*textOfStringNode(node));
            case PLIST_ARRAY:
                return arrayOf(node);
            case PLIST_DICT:
                return dictionaryOf(node);
            default:
                return refuse(std::string("unsupported value of kind ") +
                              kindNameOfNode(plist_get_node_type(node)));
        }
    }

  private:
    std::optional<PlistValue> refuse(const std::string& what) {
        if (error_ != nullptr) {
            *error_ = what + " " + path_.describe();
        }
        return std::nullopt;
    }

    static PlistValue booleanOf(plist_t node) {
        std::uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return PlistValue::boolean(flag != 0);
    }

    // libplist keeps every integer as 64 unsigned bits and remembers apart whether a value with
    // the top bit set was written negative or as a large unsigned number. Only its XML output
    // tells the two apart, so that is asked in the rare case where it matters.
    std::optional<PlistValue> integerOf(plist_t node) {
        std::uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        if (bits > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
            xmlOfPlistNode(node).find("<integer>-") == std::string::npos) {
            return refuse("unsupported integer " + std::to_string(bits) +
                          ", above the largest signed 64-bit integer,");
        }
        return PlistValue::integer(static_cast<std::int64_t>(bits));
    }

    std::optional<PlistValue> arrayOf(plist_t node) {
        PlistArray array;
        const std::uint32_t size = plist_array_get_size(node);
        array.reserve(size);
        for (std::uint32_t index = 0; index < size; ++index) {
            path_.enterIndex(index);
            auto element = convert(plist_array_get_item(node, index));
            path_.leave();
            if (!element) {
                return std::nullopt;
            }
            array.push_back(std::move(*element));
        }
        return std::optional<PlistValue>(std::in_place, std::move(array));
    }

    std::optional<PlistValue> dictionaryOf(plist_t node) {
        PlistDictionary dictionary;
        const bool complete = visitDictionaryEntries(node, [&](const char* key, plist_t child) {
            path_.enterKey(key);
            auto value = convert(child);
            path_.leave();
            if (value) {
                dictionary.set(key, std::move(*value));
            }
            return value.has_value();
        });
        if (!complete) {
            return std::nullopt;
        }
        return std::optional<PlistValue>(std::in_place, std::move(dictionary));
    }

    std::string* error_;
    TreePath path_;
};

PlistNode nodeOfArray(const PlistArray& array) {
    PlistNode node(plist_new_array());
    for (const auto& element : array) {
        PlistNode child = plistNodeOfValue(element);
        if (!child) {
            return nullptr;
        }
        plist_array_append_item(node.get(), child.release());
    }
    return node;
}

PlistNode nodeOfDictionary(const PlistDictionary& dictionary) {
    PlistNode node(plist_new_dict());
    for (const auto& [key, value] : dictionary) {
        PlistNode child = plistNodeOfValue(value);
        if (!child) {
            return nullptr;
        }
        plist_dict_set_item(node.get(), key.c_str(), child.release());
    }
    return node;
}

}  // namespace

PlistNode parsePlistNode(std::string_view bytes, std::string* error) {
    auto refuse = [error](const char* why) {
        if (error != nullptr) {
            *error = why;
        }
        return PlistNode();
    };
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return refuse("too large for a property list");
    }
    const auto length = static_cast<std::uint32_t>(bytes.size());
    plist_t root = nullptr;
    if (plist_is_binary(bytes.data(), length)) {
        plist_from_bin(bytes.data(), length, &root);
        return root != nullptr ? PlistNode(root) : refuse("not a valid binary property list");
    }
    plist_from_xml(bytes.data(), length, &root);
    return root != nullptr ? PlistNode(root) : refuse("not a valid XML property list");
}

PlistNode readPlistNodeFile(const std::string& path, std::string* error, bool* missing) {
    std::string bytes;
    const bool read = readWholeFile(path, bytes, error);
    if (missing != nullptr) {
        *missing = !read && errno == ENOENT;
    }
    if (!read) {
        return nullptr;
    }
    std::string why;
    PlistNode node = parsePlistNode(bytes, &why);
    if (!node && error != nullptr) {
        *error = path + ": " + why;
    }
    return node;
}

std::string xmlOfPlistNode(plist_t node) {
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    std::string text(xml != nullptr ? xml : "", xml != nullptr ? length : 0);
    plist_to_xml_free(xml);
    return text;
}

std::optional<PlistValue> plistValueOfNode(plist_t node, std::string* error) {
    return NodeConverter(error).convert(node);
}

PlistNode plistNodeOfValue(const PlistValue& value) {
    switch (value.kind()) {
        case PlistValue::Kind::String:
            return PlistNode(plist_new_string(value.asString()->c_str()));
        case PlistValue::Kind::Integer:
            // Negative numbers travel as their two's-complement bits; libplist writes them
            // back with their sign.
            return PlistNode(plist_new_uint(static_cast<std::uint64_t>(*value.asInteger())));
        case PlistValue::Kind::Boolean:
            return PlistNode(plist_new_bool(*value.asBoolean() ? 1 : 0));
        case PlistValue::Kind::Array:
            return nodeOfArray(*value.asArray());
        case PlistValue::Kind::Dictionary:
            return nodeOfDictionary(*value.asDictionary());
        case PlistValue::Kind::Absent:
            break;
    }
    return nullptr;
}

std::optional<std::vector<std::string>> stringsOfArrayNode(plist_t node) {
    if (node == nullptr || plist_get_node_type(node) != PLIST_ARRAY) {
        return std::nullopt;
    }
    std::vector<std::string> strings;
    const std::uint32_t size = plist_array_get_size(node);
    strings.reserve(size);
    for (std::uint32_t index = 0; index < size; ++index) {
        auto text = textOfStringNode(plist_array_get_item(node, index));
        if (!text) {
            return std::nullopt;
        }
        strings.push_back(std::move(*text));
    }
    return strings;
}

bool visitDictionaryEntries(plist_t dictionary,
                            const std::function<bool(const char* key, plist_t value)>& visit) {
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(dictionary, &iterator);
    std::unique_ptr<void, FreeWithFree> ownedIterator(iterator);
    for (;;) {
        char* rawKey = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dictionary, iterator, &rawKey, &value);
        std::unique_ptr<char, FreeWithFree> key(rawKey);
        if (!key || value == nullptr) {
            return true;
        }
        if (!visit(key.get(), value)) {
            return false;
        }
    }
}

std::optional<std::string> textOfStringNode(plist_t node) {
    if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) {
        return std::nullopt;
    }
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return std::string(text != nullptr ? text : "", text != nullptr ? length : 0);
}

}  // namespace velnor
