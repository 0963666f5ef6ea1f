#include "software/systemd_units.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "core/vllog.h"

namespace {

constexpr const char* kService = "org.freedesktop.systemd1";
constexpr const char* kPath = "/org/freedesktop/systemd1";
constexpr const char* kManager = "org.freedesktop.systemd1.Manager";
constexpr const char* kSuffix = ".service";

struct BusUnref {
  void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// A connection of this call's own: sd-bus objects belong to one thread.
int openBus(const std::string& address, Bus& out) {
  sd_bus* raw = nullptr;
  int r = 0;
  if (address.empty()) {
    r = sd_bus_open_system(&raw);
  } else {
    r = sd_bus_new(&raw);
    if (r >= 0) {
      out.reset(raw);
      if ((r = sd_bus_set_address(raw, address.c_str())) < 0) return r;
      if ((r = sd_bus_set_bus_client(raw, 1)) < 0) return r;
      if ((r = sd_bus_start(raw)) < 0) return r;
      return 0;
    }
  }
  if (r >= 0) out.reset(raw);
  return r;
}

std::string errorText(const sd_bus_error& error, int r) {
  if (error.message != nullptr) return error.message;
  return std::strerror(-r);
}

// Reads a(ssssssouso): name, description, load, active, sub, following,
// path, job id, job type, job path.
int readUnits(sd_bus_message* reply, std::map<std::string, std::string>& units) {
  int r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "(ssssssouso)");
  if (r < 0) return r;
  const std::size_t suffixLen = std::strlen(kSuffix);
  for (;;) {
    const char* name = nullptr;
    const char* active = nullptr;
    r = sd_bus_message_read(reply, "(ssssssouso)", &name, nullptr, nullptr, &active, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr);
    if (r < 0) return r;
    if (r == 0) break;
    const std::size_t len = std::strlen(name);
    if (len <= suffixLen || std::strcmp(name + len - suffixLen, kSuffix) != 0) continue;
    units[std::string(name, len - suffixLen)] =
        std::strcmp(active, "active") == 0 ? "Running" : "Stopped";
  }
  return sd_bus_message_exit_container(reply);
}

}  // namespace

int CSystemdUnits::enumUnits(std::map<std::string, std::string>& units) {
  Bus bus;
  int r = openBus(busAddress_, bus);
  if (r < 0) {
    Log->LogMessage(std::string("Unable to connect to the system bus: ") + std::strerror(-r));
    return -1;
  }
  sd_bus_set_method_call_timeout(bus.get(),
                                 static_cast<std::uint64_t>(callTimeout.count()) * 1000);

  // Only the service units, where the manager can filter (systemd 230 on);
  // older managers list every unit.
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* raw = nullptr;
  {
    sd_bus_message* call = nullptr;
    r = sd_bus_message_new_method_call(bus.get(), &call, kService, kPath, kManager,
                                       "ListUnitsByPatterns");
    Message request(call);
    if (r >= 0) r = sd_bus_message_append_strv(call, nullptr);
    if (r >= 0) {
      char pattern[] = "*.service";
      char* patterns[] = {pattern, nullptr};
      r = sd_bus_message_append_strv(call, patterns);
    }
    if (r >= 0) r = sd_bus_call(bus.get(), call, 0, &error, &raw);
  }
  if (r < 0 && sd_bus_error_has_name(&error, SD_BUS_ERROR_UNKNOWN_METHOD)) {
    sd_bus_error_free(&error);
    error = SD_BUS_ERROR_NULL;
    r = sd_bus_call_method(bus.get(), kService, kPath, kManager, "ListUnits", &error, &raw, "");
  }
  Message reply(raw);
  if (r < 0) {
    Log->LogMessage("Unable to list the systemd units: " + errorText(error, r));
    sd_bus_error_free(&error);
    return -1;
  }
  sd_bus_error_free(&error);
  r = readUnits(reply.get(), units);
  if (r < 0) {
    Log->LogMessage(std::string("Unable to read the systemd units: ") + std::strerror(-r));
    return -1;
  }
  return 0;
}
