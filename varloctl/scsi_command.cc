#include "varloctl/scsi_command.h"

namespace varloctl {
namespace {

// Devices pad their texts with blanks to the field width.
std::string trimmed(std::string s) {
  s.erase(s.find_last_not_of(' ') + 1);
  return s;
}

}  // namespace

std::unique_ptr<Command> ScsiCommand::make(const std::vector<std::string>&) {
  return std::make_unique<ScsiCommand>();
}

Value ScsiCommand::run(Session& session) {
  using varlo::varlo_scsis;
  Value list = Value::array();
  for (std::size_t n = 0;; ++n) {
    if (n == kMaxRecords)
      throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxRecords) +
                                    " SCSI records without a last one");
    const auto record = n == 0 ? receiveFirstReply<varlo_scsis::kSize>(session)
                               : session.receive<varlo_scsis::kSize>();
    requireSuccess(record, "the agent could not list its SCSI devices");
    const std::uint16_t count = varlo::get16<varlo_scsis::Count>(record);
    if (count > varlo_scsis::kSlots)
      throw CtlError(kBadReply, "the agent announced " + std::to_string(count) +
                                    " devices in a record of seven slots");
    for (std::size_t i = 0; i < count; ++i)
      list.push_back(describe(varlo::varlo_scsi::decodeAt(varlo_scsis::slot(record, i))));
    if (varlo::ReplyPrefix::decodeFrom(record).last) break;
  }
  return list;
}

Value ScsiCommand::describe(const varlo::varlo_scsi& device) {
  const char* typeName =
      device.type < varlo::kScsiDeviceTypes.size() ? varlo::kScsiDeviceTypes[device.type] : "Unknown";
  return Value{{"id", device.id},
               {"type", device.type},
               {"type_name", typeName},
               {"vendor", trimmed(device.vendor)},
               {"product", trimmed(device.product)},
               {"revision", trimmed(device.revision)}};
}

}  // namespace varloctl
