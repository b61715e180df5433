// The process table of the host support library.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "Export.h"

// Linux has no kinfo_proc: this is a minimal record with the two fields that plug-ins read,
// under the names that the BSD record gives them.
struct ucred_record {
    uid_t cr_uid;  // effective user id
};
struct eproc_record {
    ucred_record e_ucred;
};
struct extern_proc {
    std::int32_t p_pid;
};
struct kinfo_proc {
    extern_proc kp_proc;
    eproc_record kp_eproc;
};

// Every process, in the order in which the kernel lists them. On success (0), *table points to
// *count consecutive records that the library keeps: the caller never frees them, and they
// stay valid until the next call. Any other result is a failure and leaves both untouched.
extern "C" VELNOR_EXPORT std::int32_t ec_get_process_table(kinfo_proc** table, std::size_t* count);
