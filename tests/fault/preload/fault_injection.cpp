#include "fault/preload/fault_injection.h"
