// The commands that the privileged parent process carries out, and how they are asked for.
//
// The channel is a connected byte stream (Zan::commandChannelFd). Integers are 32 bits wide in the
// machine's byte order. One exchange, c for the asking process and p for the parent:
//
//   c  command
//   p  acknowledgement, negative to end the exchange
//   c  argument   }  for the idle-timer commands: four of them
//   p  acknowledgement
//   p  result, 0 on success
//   c  0
//
// The arguments of the idle-timer commands, in order: interface name with its NUL; timeout in
// seconds (32 bits); label prefix "CT" with its NUL; target "IDLETIMER" with its NUL.
#pragma once

#include <cstdint>

#include "host/Agreement.h"

enum ZAN_COMMANDS : std::int32_t {
  ZAN_CMD_IDLETIMER_ADD_1 = 8,
  ZAN_CMD_IDLETIMER_ADD_2 = 9,
  ZAN_CMD_IDLETIMER_DEL_1 = 10,  ///< takes away what ADD_1 with the same arguments added
  ZAN_CMD_IDLETIMER_DEL_2 = 11   ///< the same for ADD_2
};
