// What libvelnorcommon exports: the library is built with hidden visibility, and only the
// declarations marked here form its interface to the plug-in and the hosts.
#pragma once

#define VELNOR_EXPORT __attribute__((visibility("default")))
