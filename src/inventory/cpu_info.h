// The processor facts of the Configuration record. A platform subclass
// gathers them once; every processor is reported with the one value found.
#pragma once

#include <cstdint>
#include <string>

class CpuInfo {
 public:
  virtual ~CpuInfo();

  // Gathers every fact once; the getters then only read.
  virtual void collectCPUInfo() = 0;
  virtual int getNumCPU() const = 0;
  // Hertz; 0 when unknown. The index is ignored.
  virtual std::uint32_t getCPUSpeed(unsigned int cpu) const = 0;
  // Processor type code; -1 when unknown. The index is ignored.
  virtual int getCPUType(unsigned int cpu) const = 0;
  virtual std::string getCPUBrandStr() const = 0;
};
