// Address families that the C library's headers do not know.
#pragma once

constexpr int AF_SLOW_PROTOCOL = 59;  // a switch kernel's own: frames of the slow protocols
