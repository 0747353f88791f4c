#include "host/ZanMsg.h"

ZanMsg* ZanMsg::zan_log_class_ptr = nullptr;
