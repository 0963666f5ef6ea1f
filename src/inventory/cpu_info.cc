#include "inventory/cpu_info.h"

CpuInfo::~CpuInfo() = default;
