// Where the process's log object is found.
#include "host/ZanMsg.h"

ZanMsg* ZanMsg::zan_log_class_ptr = nullptr;
