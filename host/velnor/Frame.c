// The request velnor writes and the reply it reads, as binary property lists (see Frame.h).
// Written in the C that is also C++, so that the unit tests can build it into their program.
#include "Frame.h"

#include <stdlib.h>
#include <string.h>

// ---- The request: {version: 1, run: [DATA, ...], plugin: DATA} ------------------------------

static void append(struct FrameBuffer* buffer, const void* bytes, size_t size) {
    if (buffer->failed || buffer->size + size > (size_t)kMaxFrameBytes + 4) {
        buffer->failed = 1;
        return;
    }
    if (buffer->size + size > buffer->capacity) {
        size_t capacity = (buffer->size + size) * 2;
        // Lent storage is never handed to realloc: the bytes so far move to the heap.
        unsigned char* grown = buffer->onHeap ? (unsigned char*)realloc(buffer->bytes, capacity)
                                              : (unsigned char*)malloc(capacity);
        if (grown == NULL) {
            buffer->failed = 1;
            return;
        }
        if (!buffer->onHeap && buffer->size > 0) {
            memcpy(grown, buffer->bytes, buffer->size);
        }
        buffer->bytes = grown;
        buffer->capacity = capacity;
        buffer->onHeap = 1;
    }
    memcpy(buffer->bytes + buffer->size, bytes, size);
    buffer->size += size;
}

static void appendBigEndian(struct FrameBuffer* buffer, uint64_t value, int width) {
    unsigned char bytes[8];
    for (int index = 0; index < width; ++index) {
        bytes[index] = (unsigned char)(value >> (8 * (width - 1 - index)));
    }
    append(buffer, bytes, (size_t)width);
}

// An object's marker: its type in the high nibble and its count in the low one, or 0xF and
// the count as an integer object that follows.
static void appendMarker(struct FrameBuffer* buffer, unsigned char type, uint64_t count) {
    if (count < 15) {
        unsigned char marker = (unsigned char)(type | count);
        append(buffer, &marker, 1);
        return;
    }
    unsigned char marker[2] = {(unsigned char)(type | 0xF), 0x13};
    append(buffer, marker, 2);
    appendBigEndian(buffer, count, 8);
}

// Objects are numbered in the order they are written; references are 2 bytes and offsets 4,
// counted from the property list's first byte, which lies at base in the frame.
struct Writer {
    struct FrameBuffer* frame;
    size_t base;
    uint32_t* offsets;
    uint64_t count;
};

static uint16_t beginObject(struct Writer* writer) {
    writer->offsets[writer->count] = (uint32_t)(writer->frame->size - writer->base);
    return (uint16_t)writer->count++;
}

static uint16_t writeBytes(struct Writer* writer, unsigned char type, const char* bytes,
                           size_t size) {
    uint16_t reference = beginObject(writer);
    appendMarker(writer->frame, type, size);
    append(writer->frame, bytes, size);
    return reference;
}

static uint16_t writeKey(struct Writer* writer, const char* key) {
    return writeBytes(writer, 0x50, key, strlen(key));
}

static void storeBigEndian(struct FrameBuffer* frame, size_t at, uint64_t value, int width) {
    for (int index = 0; index < width; ++index) {
        frame->bytes[at + (size_t)index] = (unsigned char)(value >> (8 * (width - 1 - index)));
    }
}

// The request's property list, appended to frame; frame->failed tells whether it fit.
static void writeRequestBody(struct FrameBuffer* frame, uint32_t* offsets, char* const* arguments,
                             size_t count, const char* plugin) {
    struct Writer writer = {frame, frame->size, offsets, 0};
    append(frame, "bplist00", 8);
    const uint64_t entries = plugin != NULL ? 3 : 2;
    // The dictionary comes first, its references filled in once its members are numbered:
    // keys 1.., values after the keys, the array's members last.
    beginObject(&writer);
    appendMarker(frame, 0xD0, entries);
    const size_t references = frame->size;
    for (uint64_t index = 0; index < 2 * entries; ++index) {
        appendBigEndian(frame, 0, 2);
    }
    uint16_t keys[3] = {writeKey(&writer, "version"), writeKey(&writer, "run"), 0};
    if (plugin != NULL) {
        keys[2] = writeKey(&writer, "plugin");
    }
    uint16_t values[3] = {0, 0, 0};
    values[0] = beginObject(&writer);
    unsigned char version[2] = {0x10, kProtocolVersion};
    append(frame, version, 2);
    values[1] = beginObject(&writer);
    appendMarker(frame, 0xA0, count);
    const size_t members = frame->size;
    for (size_t index = 0; index < count; ++index) {
        appendBigEndian(frame, 0, 2);
    }
    if (plugin != NULL) {
        values[2] = writeBytes(&writer, 0x40, plugin, strlen(plugin));
    }
    for (size_t index = 0; index < count; ++index) {
        uint16_t member = writeBytes(&writer, 0x40, arguments[index], strlen(arguments[index]));
        if (!frame->failed) {
            storeBigEndian(frame, members + 2 * index, member, 2);
        }
    }
    for (uint64_t index = 0; index < entries && !frame->failed; ++index) {
        storeBigEndian(frame, references + 2 * index, keys[index], 2);
        storeBigEndian(frame, references + 2 * (entries + index), values[index], 2);
    }
    const uint64_t offsetTable = frame->size - writer.base;
    for (uint64_t index = 0; index < writer.count; ++index) {
        appendBigEndian(frame, offsets[index], 4);
    }
    unsigned char trailer[8] = {0, 0, 0, 0, 0, 0, 4, 2};
    append(frame, trailer, sizeof trailer);
    appendBigEndian(frame, writer.count, 8);
    appendBigEndian(frame, 0, 8);
    appendBigEndian(frame, offsetTable, 8);
}

int writeCommandRequest(char* const* arguments, size_t count, const char* plugin,
                        struct FrameBuffer* frame) {
    if (count > kMaxRequestArguments) {
        releaseFrame(frame);
        return 0;
    }
    // One offset for the dictionary, its three keys, its three values and each argument; a
    // usual command line's fit on the stack, and velnor asks the allocator for nothing.
    enum { kOffsetsOnStack = 64 };
    uint32_t stackOffsets[kOffsetsOnStack];
    uint32_t* offsets =
        count + 7 <= kOffsetsOnStack ? stackOffsets : (uint32_t*)calloc(count + 7, sizeof *offsets);
    if (offsets == NULL) {
        releaseFrame(frame);
        return 0;
    }
    // The length is written once the property list after it is whole.
    appendBigEndian(frame, 0, 4);
    writeRequestBody(frame, offsets, arguments, count, plugin);
    if (offsets != stackOffsets) {
        free(offsets);
    }
    int written = !frame->failed && frame->size - 4 <= kMaxFrameBytes;
    if (!written) {
        releaseFrame(frame);
        return 0;
    }
    storeBigEndian(frame, 0, frame->size - 4, 4);
    return written;
}

void releaseFrame(struct FrameBuffer* frame) {
    if (frame->onHeap) {
        free(frame->bytes);
    }
    frame->bytes = NULL;
    frame->size = 0;
    frame->capacity = 0;
    frame->failed = 0;
    frame->onHeap = 0;
}

// ---- The reply: {kind: "exit", status: INT}, {kind: "direct"} or {kind: "error", ...} -------

struct Plist {
    const unsigned char* bytes;
    size_t size;
    int offsetWidth;
    int referenceWidth;
    uint64_t objects;
    uint64_t offsetTable;
};

// The width bytes at at as a big-endian number; 0 when they do not all lie in the list.
static int readBigEndian(const struct Plist* plist, size_t at, int width, uint64_t* value) {
    if (at > plist->size || (size_t)width > plist->size - at) {
        return 0;
    }
    *value = 0;
    for (int index = 0; index < width; ++index) {
        *value = (*value << 8) | plist->bytes[at + (size_t)index];
    }
    return 1;
}

// Whether count units of unitWidth bytes from contents end before the offset table, where the
// objects end: a count that says more is damage, not a text to cut.
static int fitsBeforeOffsetTable(const struct Plist* plist, size_t contents, uint64_t count,
                                 uint64_t unitWidth) {
    return contents <= plist->offsetTable && count <= (plist->offsetTable - contents) / unitWidth;
}

// Where object number reference begins; 0 when there is no such object or it would begin in
// or past the offset table.
static int objectAt(const struct Plist* plist, uint64_t reference, size_t* at) {
    uint64_t offset;
    if (reference >= plist->objects ||
        !readBigEndian(plist, plist->offsetTable + reference * (uint64_t)plist->offsetWidth,
                       plist->offsetWidth, &offset) ||
        offset >= plist->offsetTable) {
        return 0;
    }
    *at = (size_t)offset;
    return 1;
}

// An object's type nibble, its count, and where its contents begin; 0 when its marker or
// count lies outside the list. The count is not checked against the list's size: readers
// bound each read instead.
static int objectHeader(const struct Plist* plist, size_t at, unsigned* type, uint64_t* count,
                        size_t* contents) {
    if (at >= plist->size) {
        return 0;
    }
    *type = plist->bytes[at] >> 4;
    *count = plist->bytes[at] & 0xF;
    *contents = at + 1;
    if (*count == 0xF && *type != 0x1) {
        if (*contents >= plist->size || (plist->bytes[*contents] >> 4) != 0x1) {
            return 0;
        }
        int width = 1 << (plist->bytes[*contents] & 0xF);
        if (width > 8 || !readBigEndian(plist, *contents + 1, width, count)) {
            return 0;
        }
        *contents += 1 + (size_t)width;
    }
    return 1;
}

// A string object as UTF-8 in text, cut to fit size: ASCII as it is, UTF-16 converted (enough
// for a message). 0 when the object is missing, is no string, or runs past the objects.
static int readText(const struct Plist* plist, uint64_t reference, char* text, size_t size) {
    size_t at, contents;
    unsigned type;
    uint64_t count;
    // An empty array, dictionary or data would otherwise pass as an empty text.
    if (!objectAt(plist, reference, &at) || !objectHeader(plist, at, &type, &count, &contents) ||
        (type != 0x5 && type != 0x6) ||
        !fitsBeforeOffsetTable(plist, contents, count, type == 0x5 ? 1 : 2)) {
        return 0;
    }
    size_t written = 0;
    for (uint64_t index = 0; index < count && written + 4 < size; ++index) {
        uint64_t unit;
        if (type == 0x5 && readBigEndian(plist, contents + index, 1, &unit)) {
            text[written++] = (char)unit;
        } else if (type == 0x6 && readBigEndian(plist, contents + 2 * index, 2, &unit)) {
            if (unit < 0x80) {
                text[written++] = (char)unit;
            } else if (unit < 0x800) {
                text[written++] = (char)(0xC0 | (unit >> 6));
                text[written++] = (char)(0x80 | (unit & 0x3F));
            } else {
                // Surrogates, which the daemon's messages do not hold, print as three bytes.
                text[written++] = (char)(0xE0 | (unit >> 12));
                text[written++] = (char)(0x80 | ((unit >> 6) & 0x3F));
                text[written++] = (char)(0x80 | (unit & 0x3F));
            }
        } else {
            return 0;
        }
    }
    text[written] = '\0';
    return 1;
}

// An integer object of 1 to 8 bytes; 0 for any other object.
static int readInteger(const struct Plist* plist, uint64_t reference, int64_t* value) {
    size_t at;
    uint64_t raw;
    if (!objectAt(plist, reference, &at) || at >= plist->size || (plist->bytes[at] >> 4) != 0x1) {
        return 0;
    }
    int width = 1 << (plist->bytes[at] & 0xF);
    if (width > 8 || !readBigEndian(plist, at + 1, width, &raw)) {
        return 0;
    }
    *value = (int64_t)raw;
    return 1;
}

int readCommandReply(const unsigned char* bytes, size_t size, struct CommandReply* reply) {
    struct Plist plist = {bytes, size, 0, 0, 0, 0};
    uint64_t widths, top;
    if (size < 8 + 32 || memcmp(bytes, "bplist00", 8) != 0 ||
        !readBigEndian(&plist, size - 26, 2, &widths) ||
        !readBigEndian(&plist, size - 24, 8, &plist.objects) ||
        !readBigEndian(&plist, size - 16, 8, &top) ||
        !readBigEndian(&plist, size - 8, 8, &plist.offsetTable)) {
        return 0;
    }
    plist.offsetWidth = (int)(widths >> 8);
    plist.referenceWidth = (int)(widths & 0xFF);
    size_t at, contents;
    unsigned type;
    uint64_t entries;
    // The offset table lies between the objects and the trailer and holds exactly the objects'
    // offsets; the dictionary's keys and values are as many references before the table.
    if (plist.offsetWidth < 1 || plist.offsetWidth > 8 || plist.referenceWidth < 1 ||
        plist.referenceWidth > 8 || plist.offsetTable > size - 32 ||
        plist.objects != (size - 32 - plist.offsetTable) / (uint64_t)plist.offsetWidth ||
        !objectAt(&plist, top, &at) || !objectHeader(&plist, at, &type, &entries, &contents) ||
        type != 0xD ||
        !fitsBeforeOffsetTable(&plist, contents, entries, 2 * (uint64_t)plist.referenceWidth)) {
        return 0;
    }
    memset(reply, 0, sizeof *reply);
    for (uint64_t index = 0; index < entries; ++index) {
        uint64_t key, value;
        char name[16];
        if (!readBigEndian(&plist, contents + index * (uint64_t)plist.referenceWidth,
                           plist.referenceWidth, &key) ||
            !readBigEndian(&plist, contents + (entries + index) * (uint64_t)plist.referenceWidth,
                           plist.referenceWidth, &value) ||
            !readText(&plist, key, name, sizeof name)) {
            return 0;
        }
        if (strcmp(name, "kind") == 0 &&
            !readText(&plist, value, reply->kind, sizeof reply->kind)) {
            return 0;
        }
        if (strcmp(name, "error") == 0 &&
            !readText(&plist, value, reply->error, sizeof reply->error)) {
            return 0;
        }
        if (strcmp(name, "status") == 0) {
            reply->hasStatus = readInteger(&plist, value, &reply->status);
        }
    }
    return reply->kind[0] != '\0';
}
