#include "PlistNode.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "PlistInputChecks.h"
#include "PlistTreePath.h"
#include "WholeFile.h"

namespace velnor {
namespace {

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

// "an integer", "a string": the kind's name as a sentence needs it.
std::string withArticle(plist_type type) {
    const std::string name = kindNameOfNode(type);
    return (name.find_first_of("aeiou") == 0 ? "an " : "a ") + name;
}

struct FreeWithFree {
    void operator()(void* memory) const { std::free(memory); }
};

// A lone object as a binary property list: the header, the object (its marker, then its bytes
// big-endian), the offset table and the trailer. libplist's accessor for dates answers whole
// seconds in 32 bits only, and its constructor takes them; its constructor for integers takes
// every one with the top bit set for a negative one. Such values travel through this form
// instead.
constexpr std::size_t kObjectOffset = 8;
constexpr unsigned char kDateMarker = 0x33;
// An integer of 16 bytes, the form binary property lists give those above the largest signed
// 64-bit integer.
constexpr unsigned char kWideIntegerMarker = 0x14;

void appendBigEndian(std::string& bytes, std::uint64_t bits) {
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes += static_cast<char>((bits >> shift) & 0xFF);
    }
}

PlistNode nodeOfBinaryObject(unsigned char marker, std::string_view body) {
    std::string bytes = "bplist00";
    bytes += static_cast<char>(marker);
    bytes += body;
    const std::size_t table = bytes.size();
    bytes += static_cast<char>(kObjectOffset);
    std::string trailer(32, '\0');
    trailer[6] = 1;   // offset size
    trailer[7] = 1;   // reference size
    trailer[15] = 1;  // one object, the top one (0)
    trailer[31] = static_cast<char>(table);
    bytes += trailer;
    plist_t node = nullptr;
    plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
    return PlistNode(node);
}

double secondsOfDateNode(plist_t node) {
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    std::uint64_t bits = 0;
    if (bytes != nullptr && length > kObjectOffset + 8 &&
        static_cast<unsigned char>(bytes[kObjectOffset]) == kDateMarker) {
        for (std::size_t i = 1; i <= 8; ++i) {
            bits = (bits << 8) | static_cast<unsigned char>(bytes[kObjectOffset + i]);
        }
    }
    plist_to_bin_free(bytes);
    return std::bit_cast<double>(bits);
}

PlistNode nodeOfDate(double seconds) {
    std::string body;
    appendBigEndian(body, std::bit_cast<std::uint64_t>(seconds));
    return nodeOfBinaryObject(kDateMarker, body);
}

PlistNode nodeOfInteger(const PlistValue& value) {
    if (const auto number = value.asInteger()) {
        // Negative numbers travel as their two's-complement bits; libplist writes them back
        // with their sign.
        return PlistNode(plist_new_uint(static_cast<std::uint64_t>(*number)));
    }
    std::string body(8, '\0');
    appendBigEndian(body, *value.asUnsignedInteger());
    return nodeOfBinaryObject(kWideIntegerMarker, body);
}

// The reals of a tree in the order its XML shows them.
void collectReals(plist_t node, std::vector<double>& reals) {
    switch (plist_get_node_type(node)) {
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            reals.push_back(number);
            return;
        }
        case PLIST_ARRAY:
            for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i) {
                collectReals(plist_array_get_item(node, i), reals);
            }
            return;
        case PLIST_DICT:
            visitDictionaryEntries(node, [&](const char*, plist_t value) {
                collectReals(value, reals);
                return true;
            });
            return;
        default:
            return;
    }
}

// libplist writes a real with 17 significant digits, so 0.1 comes back as 0.10000000000000001,
// and drops the sign of -0. Each real's text is written again in the shortest form that reads
// back as the same number. A "<real>" can only be markup: text escapes its '<'.
std::string withExactReals(std::string xml, const std::vector<double>& reals) {
    constexpr std::string_view open = "<real>";
    constexpr std::string_view close = "</real>";
    std::size_t at = 0;
    for (double number : reals) {
        const std::size_t start = xml.find(open, at);
        const std::size_t end = start == std::string::npos ? start : xml.find(close, start);
        if (end == std::string::npos) {
            break;
        }
        const std::string text = textOfReal(number);
        xml.replace(start + open.size(), end - start - open.size(), text);
        at = start + open.size() + text.size() + close.size();
    }
    return xml;
}

// A failure that is a reason alone, for a caller to put after the file it read.
support::Failure invalid(std::string reason) {
    return {EINVAL, std::move(reason)};
}

class NodeConverter {
  public:
    support::Result<PlistValue> convert(plist_t node) {
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
            case PLIST_REAL: {
                double number = 0;
                plist_get_real_val(node, &number);
                return PlistValue::real(number);
            }
            case PLIST_DATE:
                return PlistValue::date(secondsOfDateNode(node));
            case PLIST_DATA: {
                std::uint64_t length = 0;
                const char* bytes = plist_get_data_ptr(node, &length);
                return PlistValue::data(std::string(bytes != nullptr ? bytes : "", length));
            }
            case PLIST_UID: {
                std::uint64_t reference = 0;
                plist_get_uid_val(node, &reference);
                return PlistValue::uid(reference);
            }
            default:
                return refuse(std::string("unsupported value of kind ") +
                              kindNameOfNode(plist_get_node_type(node)));
        }
    }

  private:
    support::Failure refuse(const std::string& what) const {
        return invalid(what + " " + path_.describe());
    }

    static PlistValue booleanOf(plist_t node) {
        std::uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return PlistValue::boolean(flag != 0);
    }

    // libplist keeps every integer as 64 unsigned bits and remembers apart whether a value with
    // the top bit set was written negative or as a large unsigned number. Only its XML output
    // tells the two apart, so that is asked in the rare case where it matters.
    static PlistValue integerOf(plist_t node) {
        std::uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        if (bits > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
            xmlOfPlistNode(node).find("<integer>-") == std::string::npos) {
            return PlistValue::unsignedInteger(bits);
        }
        return PlistValue::integer(static_cast<std::int64_t>(bits));
    }

    support::Result<PlistValue> arrayOf(plist_t node) {
        PlistArray array;
        const std::uint32_t size = plist_array_get_size(node);
        array.reserve(size);
        for (std::uint32_t index = 0; index < size; ++index) {
            path_.enterIndex(index);
            auto element = convert(plist_array_get_item(node, index));
            path_.leave();
            if (!element) {
                return element.failure();
            }
            array.push_back(std::move(*element));
        }
        return support::Result<PlistValue>(std::in_place, std::move(array));
    }

    support::Result<PlistValue> dictionaryOf(plist_t node) {
        PlistDictionary dictionary;
        std::optional<support::Failure> failure;
        visitDictionaryEntries(node, [&](const char* key, plist_t child) {
            path_.enterKey(key);
            auto value = convert(child);
            path_.leave();
            if (!value) {
                failure = value.failure();
                return false;
            }
            dictionary.set(key, std::move(*value));
            return true;
        });
        if (failure) {
            return std::move(*failure);
        }
        return support::Result<PlistValue>(std::in_place, std::move(dictionary));
    }

    PlistTreePath path_;
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

support::Result<PlistNode> parsePlistNode(std::string_view bytes) {
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return invalid("too large for a property list");
    }
    const auto length = static_cast<std::uint32_t>(bytes.size());
    plist_t root = nullptr;
    if (plist_is_binary(bytes.data(), length)) {
        if (auto checked = checkBinaryPlistBytes(bytes); !checked) {
            return invalid("not a valid binary property list: " + checked.message());
        }
        plist_from_bin(bytes.data(), length, &root);
        if (root == nullptr) {
            return invalid("not a valid binary property list");
        }
        return PlistNode(root);
    }
    if (auto checked = checkXmlPlistBytes(bytes); !checked) {
        return invalid("not a valid XML property list: " + checked.message());
    }
    plist_from_xml(bytes.data(), length, &root);
    if (root == nullptr) {
        return invalid("not a valid XML property list");
    }
    if (auto checked = checkPlistNesting(root); !checked) {
        freePlistWithoutRecursion(root);
        return invalid("not a usable property list: " + checked.message());
    }
    return PlistNode(root);
}

PlistFormat formatOfPlistBytes(std::string_view bytes) {
    const auto length = static_cast<std::uint32_t>(std::min<std::size_t>(bytes.size(), UINT32_MAX));
    return plist_is_binary(bytes.data(), length) ? PlistFormat::Binary : PlistFormat::Xml;
}

support::Result<PlistFile> readPlistFile(const std::string& path) {
    auto bytes = readWholeFileSafely(path);
    if (!bytes) {
        return bytes.failure();
    }
    auto node = parsePlistNode(*bytes);
    if (!node) {
        return support::couldNot("read", path, node.message(), node.error());
    }
    return PlistFile{std::move(*node), formatOfPlistBytes(*bytes)};
}

std::string xmlOfPlistNode(plist_t node) {
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    std::string text(xml != nullptr ? xml : "", xml != nullptr ? length : 0);
    plist_to_xml_free(xml);
    std::vector<double> reals;
    collectReals(node, reals);
    return reals.empty() ? text : withExactReals(std::move(text), reals);
}

support::Result<std::string> exactBytesOfPlistNode(plist_t node, PlistFormat format) {
    auto value = plistValueOfNode(node);
    if (!value) {
        return value.failure();
    }
    if (auto uncarriable = findUncarriableText(*value, format)) {
        return invalid(*uncarriable + ", which " + formatName(format) + " cannot carry exactly");
    }
    std::string bytes;
    if (format == PlistFormat::Xml) {
        bytes = xmlOfPlistNode(node);
    } else {
        char* binary = nullptr;
        std::uint32_t length = 0;
        plist_to_bin(node, &binary, &length);
        bytes.assign(binary != nullptr ? binary : "", binary != nullptr ? length : 0);
        plist_to_bin_free(binary);
    }
    // What the rules above do not foresee in libplist's writers still never reaches a file.
    auto again = parsePlistNode(bytes);
    auto valueAgain = again ? plistValueOfNode(again->get()) : again.failure();
    if (!valueAgain || !(*valueAgain == *value)) {
        return invalid(std::string(formatName(format)) + " of it would not read back the same");
    }
    return bytes;
}

std::string base64OfBytes(std::string_view bytes) {
    PlistNode node(plist_new_data(bytes.data(), bytes.size()));
    const std::string xml = xmlOfPlistNode(node.get());
    const std::size_t start = xml.find("<data>");
    const std::size_t end = xml.find("</data>");
    std::string text;
    if (start != std::string::npos && end != std::string::npos) {
        for (char c : std::string_view(xml).substr(start + 6, end - start - 6)) {
            if (c != '\n' && c != '\t' && c != ' ') {
                text += c;
            }
        }
    }
    return text;
}

support::Result<PlistValue> plistValueOfNode(plist_t node) {
    return NodeConverter().convert(node);
}

PlistNode plistNodeOfValue(const PlistValue& value) {
    switch (value.kind()) {
        case PlistValue::Kind::String:
            return PlistNode(plist_new_string(value.asString()->c_str()));
        case PlistValue::Kind::Integer:
            return nodeOfInteger(value);
        case PlistValue::Kind::Boolean:
            return PlistNode(plist_new_bool(*value.asBoolean() ? 1 : 0));
        case PlistValue::Kind::Array:
            return nodeOfArray(*value.asArray());
        case PlistValue::Kind::Dictionary:
            return nodeOfDictionary(*value.asDictionary());
        case PlistValue::Kind::Real:
            return PlistNode(plist_new_real(*value.asReal()));
        case PlistValue::Kind::Date:
            return nodeOfDate(*value.asDate());
        case PlistValue::Kind::Data:
            return PlistNode(plist_new_data(value.asData()->data(), value.asData()->size()));
        case PlistValue::Kind::Uid:
            return PlistNode(plist_new_uid(*value.asUid()));
        case PlistValue::Kind::Absent:
            break;
    }
    return nullptr;
}

support::Result<std::vector<std::string>> stringsOfArrayNode(plist_t node) {
    if (node == nullptr) {
        return invalid("it is missing");
    }
    if (plist_get_node_type(node) != PLIST_ARRAY) {
        return invalid(std::string("it is ") + withArticle(plist_get_node_type(node)));
    }
    std::vector<std::string> strings;
    const std::uint32_t size = plist_array_get_size(node);
    strings.reserve(size);
    for (std::uint32_t index = 0; index < size; ++index) {
        plist_t element = plist_array_get_item(node, index);
        auto text = textOfStringNode(element);
        if (!text) {
            return invalid("element " + std::to_string(index) + " is " +
                           withArticle(plist_get_node_type(element)));
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
