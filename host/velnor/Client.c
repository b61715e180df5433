// velnor, the command that people type. When velnord answers on its control socket, velnor hands
// it the whole command line with its standard input, output and error and its working folder;
// the daemon runs the command there, writes its output straight to those descriptors and
// answers the exit status. Otherwise, for --direct, or when the daemon says the command is not
// its to run, velnor becomes velnor-direct, the in-process host, by exec.
//
// Nearly every run is the first case, so this program is C and asks nothing of the dynamic
// loader or a C++ runtime: its start-up is that of the smallest program, which is most of what a
// status costs. It speaks the daemon's framing (a 4-byte big-endian length, then a binary
// property list) for the two small dictionaries it needs, and nothing else of property lists
// (Frame.c).
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

#include "Frame.h"

#ifndef VELNOR_DIRECT_FROM_PROGRAM
#error "VELNOR_DIRECT_FROM_PROGRAM names velnor-direct relative to this program's folder"
#endif

enum {
    kExitUnavailable = 69,  // as the in-process host answers when it cannot run at all
    kPassed = 4,            // standard input, output, error, the working folder
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
static int sendRequest(int connection, const struct FrameBuffer* frame) {
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
// arrives in one read. bytes holds the frame, length first.
static int receiveReply(int connection, unsigned char* bytes, size_t size,
                        struct CommandReply* reply) {
    size_t have = 0;
    size_t needed = 4;
    while (have < needed) {
        ssize_t count = read(connection, bytes + have, size - have);
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
            if (needed > size) {
                return 0;
            }
        }
    }
    return readCommandReply(bytes + 4, needed - 4, reply);
}

int main(int argc, char** argv) {
    if (argc < 1 || asksForDirect(argv)) {
        runInThisProcess(argv);
    }
    int connection = connectToDaemon();
    if (connection < 0) {
        runInThisProcess(argv);
    }
    // The request, and then the reply, in one buffer on the stack: a usual run asks the allocator
    // for nothing: each page it would map costs more than a system call of the conversation.
    unsigned char buffer[4 + 4096];
    struct FrameBuffer frame = {buffer, 0, sizeof buffer, 0, 0};
    const int sent =
        writeCommandRequest(argv + 1, (size_t)(argc - 1), getenv("VELNOR_PLUGIN"), &frame) &&
        sendRequest(connection, &frame);
    releaseFrame(&frame);
    if (!sent) {
        // The daemon cannot be handed this command line; the in-process host can still run it.
        close(connection);
        runInThisProcess(argv);
    }
    struct CommandReply reply;
    if (!receiveReply(connection, buffer, sizeof buffer, &reply)) {
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
