// The other half of the floor under `velnor status` through velnord: one thread that accepts a
// connection, reads its request frame (closing the descriptors that came with it) and answers
// a fixed reply at once: the frame in which velnord tells a client that its command exited 3, so
// that velnor itself can be timed against this server too. Runs until killed.
//
// round-trip-server SOCKET
#define _GNU_SOURCE
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// {kind: "exit", status: 3} as a binary property list.
static const unsigned char kAnswer[] = {
    0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd2, 0x01, 0x02, 0x03, 0x04, 0x54,
    0x6b, 0x69, 0x6e, 0x64, 0x56, 0x73, 0x74, 0x61, 0x74, 0x75, 0x73, 0x54, 0x65, 0x78,
    0x69, 0x74, 0x10, 0x03, 0x08, 0x0d, 0x12, 0x19, 0x1e, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x20,
};

// Closes the descriptors that a read carried.
static void closePassed(struct msghdr* message) {
    for (struct cmsghdr* header = CMSG_FIRSTHDR(message); header != NULL;
         header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t index = 0; index < count; ++index) {
                int descriptor;
                memcpy(&descriptor, CMSG_DATA(header) + index * sizeof(int), sizeof descriptor);
                close(descriptor);
            }
        }
    }
}

// Reads one whole frame; 0 when the client went first.
static int readRequest(int connection) {
    unsigned char bytes[4 + 4096];
    size_t have = 0;
    size_t needed = 4;
    while (have < needed) {
        union {
            char buffer[CMSG_SPACE(sizeof(int) * 8)];
            struct cmsghdr align;
        } control;
        struct iovec part = {bytes + have, sizeof bytes - have};
        struct msghdr message = {.msg_iov = &part,
                                 .msg_iovlen = 1,
                                 .msg_control = control.buffer,
                                 .msg_controllen = sizeof control.buffer};
        ssize_t count = recvmsg(connection, &message, MSG_CMSG_CLOEXEC);
        if (count <= 0) {
            return 0;
        }
        closePassed(&message);
        have += (size_t)count;
        if (have >= 4) {
            needed = 4 + (((size_t)bytes[2] << 8) | bytes[3]);
        }
    }
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 2 || strlen(argv[1]) >= sizeof(((struct sockaddr_un*)0)->sun_path)) {
        fputs("usage: round-trip-server SOCKET\n", stderr);
        return 64;
    }
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strcpy(address.sun_path, argv[1]);
    unlink(argv[1]);
    if (listener < 0 || bind(listener, (struct sockaddr*)&address, sizeof address) != 0 ||
        listen(listener, 64) != 0) {
        perror("round-trip-server: listen");
        return 69;
    }
    unsigned char reply[4 + sizeof kAnswer] = {0, 0, 0, sizeof kAnswer};
    memcpy(reply + 4, kAnswer, sizeof kAnswer);
    for (;;) {
        int connection = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (connection < 0) {
            continue;
        }
        if (readRequest(connection)) {
            (void)send(connection, reply, sizeof reply, MSG_NOSIGNAL);
        }
        close(connection);
    }
}
