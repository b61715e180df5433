"""The sandbox: a throwaway copy of this machine on which the PostgreSQL service is installed the
way the plug-in expects to find it: the service account, the server program under /usr/bin and
the launchd job file. Nothing the command creates, deletes or chowns reaches the real file system,
and every process it starts ends with the sandbox.

Two stages run from scripts/sandbox. The outer stage (outer.py, and under_systemd.py with
--systemd), on the real machine, checks what it needs and starts the inner stage in new mount, PID
and IPC namespaces; it stays behind to turn an interrupt into the end of the whole sandbox. The
inner stage (inner.py, building on root.py and service.py), the first process of the new PID
namespace, builds the copy-on-write system, chroots the command into it and exits with the
command's status. When it exits the kernel ends every other process of its PID namespace, and the
mount namespace, its tmpfs and overlay go with the last of them; the IPC namespace takes the
server's System V shared memory with it.
"""
