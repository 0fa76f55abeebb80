#pragma once

#include "services/common/ProcFs.h"
