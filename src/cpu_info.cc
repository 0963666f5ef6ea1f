#include "cpu_info.h"

CpuInfo::~CpuInfo() = default;
