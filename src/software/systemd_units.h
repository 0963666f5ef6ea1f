// The service units systemd's manager knows, read over D-Bus.
#pragma once

#include <chrono>
#include <map>
#include <string>

class CSystemdUnits {
 public:
  // busAddress empty: the system bus.
  explicit CSystemdUnits(std::string busAddress = {}) : busAddress_(std::move(busAddress)) {}

  // Adds each "NAME.service" unit as units[NAME] = "Running" when its
  // active state is "active", else "Stopped". 0, or -1 (logged) when the
  // manager could not be asked.
  int enumUnits(std::map<std::string, std::string>& units);

  std::chrono::milliseconds callTimeout{5000};

 private:
  std::string busAddress_;
};
