// The floor under `velnor status` through velnord: a static C client that does what velnor does
// on its way to the daemon and back, and nothing else. It connects to the socket, sends one
// request frame with its standard descriptors and working folder, reads the one reply frame,
// prints its bytes and exits 3, as a status of a stopped server does.
//
// round-trip-client SOCKET
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const unsigned char kRequest[] = {0, 0, 0, 6, 's', 't', 'a', 't', 'u', 's'};

int main(int argc, char** argv) {
    if (argc != 2 || strlen(argv[1]) >= sizeof(((struct sockaddr_un*)0)->sun_path)) {
        fputs("usage: round-trip-client SOCKET\n", stderr);
        return 64;
    }
    int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strcpy(address.sun_path, argv[1]);
    if (connection < 0 || connect(connection, (struct sockaddr*)&address, sizeof address) != 0) {
        perror("round-trip-client: connect");
        return 69;
    }
    int passed[4] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, open(".", O_PATH | O_DIRECTORY)};
    union {
        char buffer[CMSG_SPACE(sizeof passed)];
        struct cmsghdr align;
    } control;
    struct iovec part = {(void*)kRequest, sizeof kRequest};
    struct msghdr message = {.msg_iov = &part,
                             .msg_iovlen = 1,
                             .msg_control = control.buffer,
                             .msg_controllen = sizeof control.buffer};
    struct cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof passed);
    memcpy(CMSG_DATA(header), passed, sizeof passed);
    if (sendmsg(connection, &message, MSG_NOSIGNAL) != (ssize_t)sizeof kRequest) {
        perror("round-trip-client: send");
        return 69;
    }
    close(passed[3]);
    unsigned char reply[4 + 256];
    size_t have = 0;
    size_t needed = 4;
    while (have < needed) {
        ssize_t count = read(connection, reply + have, sizeof reply - have);
        if (count <= 0) {
            fputs("round-trip-client: no whole reply\n", stderr);
            return 69;
        }
        have += (size_t)count;
        if (have >= 4) {
            needed = 4 + (((size_t)reply[2] << 8) | reply[3]);
        }
    }
    fwrite(reply + 4, 1, needed - 4, stdout);
    return 3;
}
