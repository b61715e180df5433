// velnor, the command that people type. When velnord answers on its control socket, velnor hands
// it the whole command line with its standard input, output and error and its working folder;
// the daemon runs the command there, writes its output straight to those descriptors and
// answers the exit status. Otherwise, for --direct, or when the daemon says the command is not
// its to run, velnor becomes velnor-direct, the in-process host, by exec.
//
// Nearly every run is the first case, so this program is C and asks nothing of the dynamic
// loader or a C++ runtime: its start-up is that of the smallest program, which is most of what a
// status costs. It speaks the daemon's framing (a 4-byte big-endian length, then a binary
// property list) for the two small dictionaries it needs, and nothing else of property lists.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#ifndef VELNOR_DIRECT_FROM_PROGRAM
#error "VELNOR_DIRECT_FROM_PROGRAM names velnor-direct relative to this program's folder"
#endif

enum {
    kExitUnavailable = 69,  // as the in-process host answers when it cannot run at all
    kProtocolVersion = 1,
    kMaxFrameBytes = 1 << 20,
    kPassed = 4,  // standard input, output, error, the working folder
};

static const char kSocketPath[] = "/run/velnor/velnord.sock";
static const char kDirectName[] = "velnor-direct";

// ---- Running in this process instead ------------------------------------------------------

// The in-process host that belongs with this program, where the install puts it (the build folder
// lays the programs out the same way).
static void directHostPath(char* path, size_t size) {
    char program[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length <= 0) {
        snprintf(path, size, "%s", kDirectName);
        return;
    }
    program[length] = '\0';
    char* folderEnd = strrchr(program, '/');
    *folderEnd = '\0';
    // Each leading "../" of the installed relative path takes one name off the folder.
    const char* relative = VELNOR_DIRECT_FROM_PROGRAM;
    while (strncmp(relative, "../", 3) == 0 && (folderEnd = strrchr(program, '/')) != NULL) {
        *folderEnd = '\0';
        relative += 3;
    }
    snprintf(path, size, "%s/%s", program, relative);
}

static _Noreturn void runInThisProcess(char** argv) {
    char path[PATH_MAX + 64];
    directHostPath(path, sizeof path);
    execv(path, argv);
    fprintf(stderr, "velnor: could not run the in-process host \"%s\": %s\n", path,
            strerror(errno));
    exit(kExitUnavailable);
}

// --direct before any "--": the daemon would send the command back anyway, so it is not asked.
static int asksForDirect(char** argv) {
    for (char** argument = argv + 1; *argument != NULL; ++argument) {
        if (strcmp(*argument, "--") == 0) {
            return 0;
        }
        if (strcmp(*argument, "--direct") == 0) {
            return 1;
        }
    }
    return 0;
}

// ---- The request: {version: 1, run: [DATA, ...], plugin: DATA} ------------------------------

struct Buffer {
    unsigned char* bytes;
    size_t size;
    size_t capacity;
    int failed;
};

static void append(struct Buffer* buffer, const void* bytes, size_t size) {
    if (buffer->failed || buffer->size + size > kMaxFrameBytes + 4) {
        buffer->failed = 1;
        return;
    }
    if (buffer->size + size > buffer->capacity) {
        size_t capacity = (buffer->size + size) * 2;
        unsigned char* grown = realloc(buffer->bytes, capacity);
        if (grown == NULL) {
            buffer->failed = 1;
            return;
        }
        buffer->bytes = grown;
        buffer->capacity = capacity;
    }
    memcpy(buffer->bytes + buffer->size, bytes, size);
    buffer->size += size;
}

static void appendBigEndian(struct Buffer* buffer, uint64_t value, int width) {
    unsigned char bytes[8];
    for (int index = 0; index < width; ++index) {
        bytes[index] = (unsigned char)(value >> (8 * (width - 1 - index)));
    }
    append(buffer, bytes, (size_t)width);
}

// An object's marker: its type in the high nibble and its count in the low one, or 0xF and
// the count as an integer object that follows.
static void appendMarker(struct Buffer* buffer, unsigned char type, uint64_t count) {
    if (count < 15) {
        unsigned char marker = (unsigned char)(type | count);
        append(buffer, &marker, 1);
        return;
    }
    unsigned char marker[2] = {(unsigned char)(type | 0xF), 0x13};
    append(buffer, marker, 2);
    appendBigEndian(buffer, count, 8);
}

// Objects are numbered in the order they are written; references are 2 bytes and offsets 4.
struct Writer {
    struct Buffer* body;
    uint32_t* offsets;
    uint64_t count;
};

static uint16_t beginObject(struct Writer* writer) {
    writer->offsets[writer->count] = (uint32_t)writer->body->size;
    return (uint16_t)writer->count++;
}

static uint16_t writeBytes(struct Writer* writer, unsigned char type, const char* bytes,
                           size_t size) {
    uint16_t reference = beginObject(writer);
    appendMarker(writer->body, type, size);
    append(writer->body, bytes, size);
    return reference;
}

static uint16_t writeKey(struct Writer* writer, const char* key) {
    return writeBytes(writer, 0x50, key, strlen(key));
}

// The request's frame, length first; NULL when it would not fit in a frame.
static struct Buffer* commandRequest(int argc, char** argv, const char* plugin) {
    static struct Buffer frame;
    size_t arguments = (size_t)(argc - 1);
    // The dictionary, three keys, three values and the arguments: under 2-byte references.
    if (arguments > 60000) {
        return NULL;
    }
    uint32_t* offsets = calloc(arguments + 7, sizeof *offsets);
    if (offsets == NULL) {
        return NULL;
    }
    struct Buffer body = {0};
    append(&body, "bplist00", 8);
    struct Writer writer = {&body, offsets, 0};
    const uint64_t entries = plugin != NULL ? 3 : 2;
    // The dictionary comes first, its references filled in once its members are numbered:
    // keys 1.., values after the keys, the array's members last.
    beginObject(&writer);
    appendMarker(&body, 0xD0, entries);
    const size_t references = body.size;
    for (uint64_t index = 0; index < 2 * entries; ++index) {
        appendBigEndian(&body, 0, 2);
    }
    uint16_t keys[3] = {writeKey(&writer, "version"), writeKey(&writer, "run"), 0};
    if (plugin != NULL) {
        keys[2] = writeKey(&writer, "plugin");
    }
    uint16_t values[3];
    values[0] = beginObject(&writer);
    unsigned char version[2] = {0x10, kProtocolVersion};
    append(&body, version, 2);
    values[1] = beginObject(&writer);
    appendMarker(&body, 0xA0, arguments);
    const size_t members = body.size;
    for (size_t index = 0; index < arguments; ++index) {
        appendBigEndian(&body, 0, 2);
    }
    if (plugin != NULL) {
        values[2] = writeBytes(&writer, 0x40, plugin, strlen(plugin));
    }
    for (size_t index = 0; index < arguments; ++index) {
        uint16_t member = writeBytes(&writer, 0x40, argv[index + 1], strlen(argv[index + 1]));
        if (!body.failed) {
            body.bytes[members + 2 * index] = (unsigned char)(member >> 8);
            body.bytes[members + 2 * index + 1] = (unsigned char)member;
        }
    }
    for (uint64_t index = 0; index < entries && !body.failed; ++index) {
        body.bytes[references + 2 * index] = (unsigned char)(keys[index] >> 8);
        body.bytes[references + 2 * index + 1] = (unsigned char)keys[index];
        body.bytes[references + 2 * (entries + index)] = (unsigned char)(values[index] >> 8);
        body.bytes[references + 2 * (entries + index) + 1] = (unsigned char)values[index];
    }
    const uint64_t offsetTable = body.size;
    for (uint64_t index = 0; index < writer.count; ++index) {
        appendBigEndian(&body, offsets[index], 4);
    }
    unsigned char trailer[8] = {0, 0, 0, 0, 0, 0, 4, 2};
    append(&body, trailer, sizeof trailer);
    appendBigEndian(&body, writer.count, 8);
    appendBigEndian(&body, 0, 8);
    appendBigEndian(&body, offsetTable, 8);
    free(offsets);
    if (body.failed || body.size > kMaxFrameBytes) {
        free(body.bytes);
        return NULL;
    }
    appendBigEndian(&frame, body.size, 4);
    append(&frame, body.bytes, body.size);
    free(body.bytes);
    return frame.failed ? NULL : &frame;
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

// Where object number reference begins.
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

// An object's type nibble, its count, and where its contents begin.
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

// A string object as UTF-8: ASCII as it is, UTF-16 converted (enough for a message).
static int readText(const struct Plist* plist, uint64_t reference, char* text, size_t size) {
    size_t at, contents;
    unsigned type;
    uint64_t count;
    if (!objectAt(plist, reference, &at) || !objectHeader(plist, at, &type, &count, &contents)) {
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

struct Reply {
    char kind[16];
    char error[1024];
    int64_t status;
    int hasStatus;
};

static int parseReply(const unsigned char* bytes, size_t size, struct Reply* reply) {
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
    if (plist.offsetWidth < 1 || plist.offsetWidth > 8 || plist.referenceWidth < 1 ||
        plist.referenceWidth > 8 || !objectAt(&plist, top, &at) ||
        !objectHeader(&plist, at, &type, &entries, &contents) || type != 0xD) {
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

// ---- The conversation ---------------------------------------------------------------------

// A connection to velnord; -1 when none answers (no socket, no one listening, not root's).
static int connectToDaemon(void) {
    int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    memcpy(address.sun_path, kSocketPath, sizeof kSocketPath);
    if (connection >= 0 && connect(connection, (struct sockaddr*)&address, sizeof address) != 0) {
        close(connection);
        return -1;
    }
    return connection;
}

// Sends the frame with this process's standard descriptors and working folder. A closed
// standard descriptor makes the send fail, and the command is run in this process instead.
static int sendRequest(int connection, const struct Buffer* frame) {
    // Closed here once sent, and never left open across the exec that may follow.
    int passed[kPassed] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO,
                           open(".", O_PATH | O_DIRECTORY)};
    if (passed[3] < 0) {
        return 0;
    }
    union {
        char buffer[CMSG_SPACE(sizeof passed)];
        struct cmsghdr align;
    } control;
    struct iovec part = {frame->bytes, frame->size};
    struct msghdr message = {.msg_iov = &part,
                             .msg_iovlen = 1,
                             .msg_control = control.buffer,
                             .msg_controllen = sizeof control.buffer};
    struct cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof passed);
    memcpy(CMSG_DATA(header), passed, sizeof passed);
    ssize_t sent = sendmsg(connection, &message, MSG_NOSIGNAL);
    close(passed[3]);
    if (sent < 0) {
        return 0;
    }
    // The descriptors went with the first bytes; the rest of a long frame follows as it fits.
    for (size_t done = (size_t)sent; done < frame->size; done += (size_t)sent) {
        sent = send(connection, frame->bytes + done, frame->size - done, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return 0;
        }
        sent = sent < 0 ? 0 : sent;
    }
    return 1;
}

// The daemon's answer, which comes once the command has run: one small frame, which usually
// arrives in one read.
static int receiveReply(int connection, struct Reply* reply) {
    static unsigned char bytes[4 + 4096];
    size_t have = 0;
    size_t needed = 4;
    while (have < needed) {
        ssize_t count = read(connection, bytes + have, sizeof bytes - have);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return 0;
        }
        have += (size_t)count;
        if (have >= 4) {
            needed = 4 + (((size_t)bytes[0] << 24) | ((size_t)bytes[1] << 16) |
                          ((size_t)bytes[2] << 8) | bytes[3]);
            if (needed > sizeof bytes) {
                return 0;
            }
        }
    }
    return parseReply(bytes + 4, needed - 4, reply);
}

int main(int argc, char** argv) {
    if (argc < 1 || asksForDirect(argv)) {
        runInThisProcess(argv);
    }
    int connection = connectToDaemon();
    if (connection < 0) {
        runInThisProcess(argv);
    }
    struct Buffer* frame = commandRequest(argc, argv, getenv("VELNOR_PLUGIN"));
    if (frame == NULL || !sendRequest(connection, frame)) {
        // The daemon cannot be handed this command line; the in-process host can still run it.
        close(connection);
        runInThisProcess(argv);
    }
    struct Reply reply;
    if (!receiveReply(connection, &reply)) {
        fprintf(stderr, "velnor: velnord ended the connection before it told the command's end\n");
        return kExitUnavailable;
    }
    if (strcmp(reply.kind, "exit") == 0 && reply.hasStatus) {
        return (int)reply.status;
    }
    if (strcmp(reply.kind, "direct") == 0) {
        close(connection);
        runInThisProcess(argv);
    }
    fprintf(stderr, "velnor: velnord: %s\n", reply.error[0] != '\0' ? reply.error : reply.kind);
    return reply.hasStatus ? (int)reply.status : kExitUnavailable;
}
