#include "PlistInputChecks.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace velnor {
namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;

// Object kinds, the high four bits of an object's first byte.
constexpr unsigned kKindAscii = 0x5;
constexpr unsigned kKindUtf16 = 0x6;
constexpr unsigned kKindArray = 0xA;
constexpr unsigned kKindSet = 0xC;
constexpr unsigned kKindDictionary = 0xD;
constexpr unsigned kKindInteger = 0x1;
// A size of 15 in the low four bits means that an integer object with the size follows.
constexpr unsigned kSizeFollows = 0xF;

support::Failure refusal(std::string reason) {
    return {EINVAL, std::move(reason)};
}

// One object of the file: where its references or its text start, and how many there are.
struct BinaryObject {
    unsigned kind = 0;
    std::uint64_t count = 0;  // references, characters or bytes, by kind
    std::size_t body = 0;     // offset of what follows the header
};

class BinaryPlistScan {
  public:
    explicit BinaryPlistScan(std::string_view bytes) : bytes_(bytes) {}

    support::Status run() {
        if (!readTrailer()) {
            return refusal("its binary trailer is not valid");
        }
        return walkFrom(top_);
    }

  private:
    // The big-endian number of width bytes at offset; false when it does not fit in the data.
    bool readNumber(std::size_t offset, std::size_t width, std::uint64_t& number) const {
        if (width == 0 || width > 8 || offset > bytes_.size() || width > bytes_.size() - offset) {
            return false;
        }
        number = 0;
        for (std::size_t i = 0; i < width; ++i) {
            number = (number << 8) | static_cast<unsigned char>(bytes_[offset + i]);
        }
        return true;
    }

    bool readTrailer() {
        if (bytes_.size() < kBinaryMagic.size() + kTrailerSize) {
            return false;
        }
        const std::size_t trailer = bytes_.size() - kTrailerSize;
        offsetSize_ = static_cast<unsigned char>(bytes_[trailer + 6]);
        referenceSize_ = static_cast<unsigned char>(bytes_[trailer + 7]);
        std::uint64_t table = 0;
        if (!readNumber(trailer + 8, 8, objects_) || !readNumber(trailer + 16, 8, top_) ||
            !readNumber(trailer + 24, 8, table)) {
            return false;
        }
        dataEnd_ = static_cast<std::size_t>(table);
        return objects_ > 0 && top_ < objects_ && referenceSize_ >= 1 && referenceSize_ <= 8 &&
               offsetSize_ >= 1 && offsetSize_ <= 8 && table >= kBinaryMagic.size() &&
               table < trailer && objects_ <= (trailer - table) / offsetSize_;
    }

    bool readObject(std::uint64_t index, BinaryObject& object) const {
        std::uint64_t offset = 0;
        if (!readNumber(dataEnd_ + index * offsetSize_, offsetSize_, offset) ||
            offset >= dataEnd_) {
            return false;
        }
        const auto marker = static_cast<unsigned char>(bytes_[offset]);
        object.kind = marker >> 4;
        object.count = marker & 0xF;
        object.body = static_cast<std::size_t>(offset) + 1;
        const bool sized = object.kind == 0x4 || object.kind == kKindAscii ||
                           object.kind == kKindUtf16 || object.kind == kKindArray ||
                           object.kind == kKindSet || object.kind == kKindDictionary;
        if (!sized || object.count != kSizeFollows) {
            return true;
        }
        if (object.body >= dataEnd_) {
            return false;
        }
        const auto sizeMarker = static_cast<unsigned char>(bytes_[object.body]);
        const std::size_t width = std::size_t{1} << (sizeMarker & 0xF);
        if ((sizeMarker >> 4) != kKindInteger ||
            !readNumber(object.body + 1, width, object.count)) {
            return false;
        }
        object.body += 1 + width;
        return true;
    }

    std::uint64_t referenceCount(const BinaryObject& object) const {
        switch (object.kind) {
            case kKindArray:
            case kKindSet:
                return object.count;
            case kKindDictionary:
                return object.count > UINT64_MAX / 2 ? UINT64_MAX : object.count * 2;
            default:
                return 0;
        }
    }

    // The zero byte (or zero UTF-16 unit) in a string object, as its offset; npos when none.
    std::size_t zeroInText(const BinaryObject& object) const {
        const std::size_t unit = object.kind == kKindUtf16 ? 2 : 1;
        if (object.kind != kKindAscii && object.kind != kKindUtf16) {
            return std::string_view::npos;
        }
        const std::uint64_t available = (dataEnd_ - std::min(object.body, dataEnd_)) / unit;
        const std::uint64_t length = std::min(object.count, available);
        for (std::uint64_t i = 0; i < length; ++i) {
            const std::size_t at = object.body + i * unit;
            if (bytes_[at] == '\0' && (unit == 1 || bytes_[at + 1] == '\0')) {
                return at;
            }
        }
        return std::string_view::npos;
    }

    // One object on the walk's path, and the next of its references to follow.
    struct Step {
        std::uint64_t index;
        BinaryObject object;
        std::uint64_t references;
        std::uint64_t next = 0;
        std::uint64_t values = 1;
    };

    // Depth-first from the top object, with the path on the heap: the nesting, the count of
    // values with every reference expanded, and the text of every string on the way.
    support::Status walkFrom(std::uint64_t top) {
        std::vector<std::uint64_t> expanded(static_cast<std::size_t>(objects_), 0);
        std::vector<bool> onPath(static_cast<std::size_t>(objects_), false);
        std::vector<Step> path;
        auto enter = [&](std::uint64_t index) -> support::Status {
            BinaryObject object;
            if (!readObject(index, object)) {
                return refusal("its object " + std::to_string(index) + " is not valid");
            }
            if (const std::size_t zero = zeroInText(object); zero != std::string_view::npos) {
                return refusal("a string in it holds a zero byte (at byte " + std::to_string(zero) +
                               ")");
            }
            const std::uint64_t references = referenceCount(object);
            if (references > (dataEnd_ - std::min(object.body, dataEnd_)) / referenceSize_) {
                return refusal("its object " + std::to_string(index) + " is not valid");
            }
            const bool container = object.kind == kKindArray || object.kind == kKindSet ||
                                   object.kind == kKindDictionary;
            if (container && path.size() >= kMaxPlistNesting) {
                return refusal("it nests deeper than " + std::to_string(kMaxPlistNesting) +
                               " levels");
            }
            onPath[index] = true;
            path.push_back(Step{index, object, references});
            return {};
        };
        if (auto entered = enter(top); !entered) {
            return entered;
        }
        while (!path.empty()) {
            Step& step = path.back();
            if (step.next == step.references) {
                const std::uint64_t values = step.values;
                onPath[step.index] = false;
                expanded[step.index] = values;
                path.pop_back();
                if (!path.empty()) {
                    path.back().values += values;
                    if (path.back().values > kMaxPlistValues) {
                        return refusal("it holds more than " + std::to_string(kMaxPlistValues) +
                                       " values");
                    }
                }
                continue;
            }
            std::uint64_t child = 0;
            readNumber(step.object.body + step.next * referenceSize_, referenceSize_, child);
            ++step.next;
            if (child >= objects_) {
                return refusal("it refers to an object that it does not hold");
            }
            if (onPath[child]) {
                return refusal("its object " + std::to_string(child) + " contains itself");
            }
            if (expanded[child] != 0) {
                step.values += expanded[child];
                if (step.values > kMaxPlistValues) {
                    return refusal("it holds more than " + std::to_string(kMaxPlistValues) +
                                   " values");
                }
                continue;
            }
            if (auto entered = enter(child); !entered) {
                return entered;
            }
        }
        return {};
    }

    std::string_view bytes_;
    unsigned offsetSize_ = 0;
    unsigned referenceSize_ = 0;
    std::uint64_t objects_ = 0;
    std::uint64_t top_ = 0;
    std::size_t dataEnd_ = 0;  // where the objects end and the offset table starts
};

// The children of one array or dictionary, in order, without reading a key.
class ChildWalk {
  public:
    explicit ChildWalk(plist_t node)
        : node_(node), array_(plist_get_node_type(node) == PLIST_ARRAY) {
        void* iterator = nullptr;
        if (array_) {
            plist_array_new_iter(node, &iterator);
        } else {
            plist_dict_new_iter(node, &iterator);
        }
        iterator_.reset(iterator);
    }

    // The next child; nullptr after the last.
    plist_t next() {
        plist_t child = nullptr;
        if (array_) {
            plist_array_next_item(node_, iterator_.get(), &child);
        } else {
            plist_dict_next_item(node_, iterator_.get(), nullptr, &child);
        }
        return child;
    }

  private:
    struct FreeIterator {
        void operator()(void* iterator) const { std::free(iterator); }
    };

    plist_t node_;
    bool array_;
    std::unique_ptr<void, FreeIterator> iterator_;
};

bool isContainer(plist_t node) {
    const plist_type type = plist_get_node_type(node);
    return type == PLIST_ARRAY || type == PLIST_DICT;
}

// The first element of an array or the first value of a dictionary; nullptr for anything else
// or an empty one. The key is never read.
plist_t firstChild(plist_t node) {
    if (plist_get_node_type(node) == PLIST_ARRAY) {
        return plist_array_get_item(node, 0);
    }
    if (plist_get_node_type(node) != PLIST_DICT) {
        return nullptr;
    }
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    plist_t value = nullptr;
    plist_dict_next_item(node, iterator, nullptr, &value);
    std::free(iterator);
    return value;
}

// Frees the first child of node, which has no children of its own.
void removeFirstChild(plist_t node) {
    if (plist_get_node_type(node) == PLIST_ARRAY) {
        plist_array_remove_item(node, 0);
        return;
    }
    char* key = nullptr;
    plist_get_key_val(plist_dict_item_get_key(firstChild(node)), &key);
    plist_dict_remove_item(node, key);
    std::free(key);
}

}  // namespace

support::Status checkBinaryPlistBytes(std::string_view bytes) {
    return BinaryPlistScan(bytes).run();
}

support::Status checkXmlPlistBytes(std::string_view bytes) {
    if (const std::size_t zero = bytes.find('\0'); zero != std::string_view::npos) {
        return refusal("it holds a zero byte (at byte " + std::to_string(zero) + ")");
    }
    return {};
}

support::Status checkPlistNesting(plist_t root) {
    std::vector<ChildWalk> path;
    if (isContainer(root)) {
        path.emplace_back(root);
    }
    while (!path.empty()) {
        plist_t child = path.back().next();
        if (child == nullptr) {
            path.pop_back();
            continue;
        }
        if (!isContainer(child)) {
            continue;
        }
        if (path.size() >= kMaxPlistNesting) {
            return refusal("it nests deeper than " + std::to_string(kMaxPlistNesting) + " levels");
        }
        path.emplace_back(child);
    }
    return {};
}

void freePlistWithoutRecursion(plist_t root) {
    std::vector<plist_t> path{root};
    while (!path.empty()) {
        plist_t child = firstChild(path.back());
        if (child != nullptr) {
            path.push_back(child);
            continue;
        }
        path.pop_back();
        if (path.empty()) {
            plist_free(root);
        } else {
            removeFirstChild(path.back());
        }
    }
}

}  // namespace velnor
