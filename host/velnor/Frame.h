// The two frames velnor exchanges with velnord: the request it writes and the reply it reads.
// A frame is a 4-byte big-endian length and a binary property list; velnor links no library,
// so this is the little of property lists that it needs. Pure: no I/O, no exit. It compiles as
// C for velnor and as C++ for the unit tests, which check it against the host's library.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    kProtocolVersion = 1,
    // The longest property list either side accepts in one frame, its length not counted.
    kMaxFrameBytes = 1 << 20,
    // The most arguments a request holds: with the dictionary, its keys and its values, the
    // objects stay numbered within 2-byte references.
    kMaxRequestArguments = 60000,
};

// Bytes written one after another. Its first bytes may be storage that the caller lends
// ({storage, 0, sizeof storage, 0, 0}); a frame that outgrows it moves to the heap.
struct FrameBuffer {
    unsigned char* bytes;
    size_t size;
    size_t capacity;
    int failed;
    // Whether bytes came from malloc, and are the frame's to free.
    int onHeap;
};

// Writes into frame, which must hold nothing yet ({NULL, 0, 0, 0, 0}, or lent storage), the request
// {version: 1, run: [DATA, ...], plugin: DATA} with one DATA per argument, in order, and the
// plugin entry only when plugin is not NULL. Answers 1 with the whole frame, length first;
// 0, with frame left empty (bytes NULL), when there are more than kMaxRequestArguments arguments,
// when the property list would pass kMaxFrameBytes, or when memory runs out.
int writeCommandRequest(char* const* arguments, size_t count, const char* plugin,
                        struct FrameBuffer* frame);

// Frees the frame's bytes if they are its own, and leaves it empty.
void releaseFrame(struct FrameBuffer* frame);

// The daemon's reply: {kind: "exit", status: INT}, {kind: "direct"}, or
// {kind: "error", error: TEXT, status: INT?}.
struct CommandReply {
    // Texts cut to fit, always terminated.
    char kind[16];
    char error[1024];
    int64_t status;
    // Whether status was there and an integer of at most 8 bytes.
    int hasStatus;
};

// Reads the property list of a reply frame, its length already taken off. Answers 1 with reply
// filled in (entries other than kind, error and status are passed over); 0 when the bytes are
// not a binary property list whose top object is a dictionary of string keys with a non-empty
// string kind, when kind or error is not a string, or when a count, offset or reference in it
// points past the objects or the offset table. Never reads outside bytes[0, size).
int readCommandReply(const unsigned char* bytes, size_t size, struct CommandReply* reply);

#ifdef __cplusplus
}
#endif
