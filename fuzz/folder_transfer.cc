// Send Folder driven by a console's bytes over a socket pair: the request
// (its folder code, after the first input byte, patched to one of the
// console's codes) naming the folder, then item records, each followed by
// its two bytes (is a folder, ends a folder), and each file's dialogue. The
// console's end is closed once the input is sent.
//
// Whatever the bytes, the handler returns, leaves no descriptor open, and
// every file and folder it makes lies under the named folder in the folder
// the code names (a link to it on a user's desktop for the desktop codes):
// none is a link, no link planted there is followed, nothing already there
// changes. A refused request makes nothing at all. Its replies are whole
// acknowledgements, a refusal only as the last.
#include <cstddef>
#include <cstdint>
#include <string>

#include "actions/send_folder_handler.h"
#include "transfer_sandbox.h"

using namespace transfer_sandbox;

namespace {

constexpr std::size_t kMaxInput = 64 * 1024;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > kMaxInput) return 0;
  Sandbox& box = Sandbox::instance();
  const Bytes stream = streamOf(data, size);
  const std::uint32_t code = codeOf(stream);
  const std::string name = nameOf(stream);
  const std::string base = box.folderOf(code);

  box.reset();
  const Sandbox::Listing before = box.list();
  const int fdsBefore = openFds();

  const Bytes out = converse(stream, [&](Session& s) { sendFolder(s, box.settings()); });

  if (openFds() != fdsBefore) __builtin_trap();
  checkAcks(out);
  // A request cut short gets no answer; any other does.
  if (out.empty() != (stream.size() < varlo::varlo_manage::kSize)) __builtin_trap();
  const bool refused = out.empty() || out[2] == 0;
  if (!out.empty() && (base.empty() || !validName(name)) &&
      (out.size() != varlo::varlo_manage::kSize || !refused))
    __builtin_trap();

  const Sandbox::Listing after = box.list();
  for (const auto& [rel, what] : before) {
    const auto it = after.find(rel);
    if (it == after.end() || it->second != what) __builtin_trap();
  }
  const std::string top = base.substr(std::min(base.size(), box.path().size() + 1)) + name;
  const std::string link = "users/ann/Desktop/" + name + ".link";
  for (const auto& [rel, what] : after) {
    if (before.count(rel) != 0) continue;
    if (refused || base.empty() || !validName(name)) __builtin_trap();
    if (rel == link && isLinkCode(code) && what == "l:" + base + name) continue;
    const bool under = rel == top || rel.compare(0, top.size() + 1, top + "/") == 0;
    if (!under) __builtin_trap();
    if (what != "d" && what.rfind("f:", 0) != 0) __builtin_trap();  // never a link
    // Every level below it is a folder made here, none planted.
    for (std::size_t slash = rel.find('/', top.size() + 1); slash != std::string::npos;
         slash = rel.find('/', slash + 1)) {
      const auto level = after.find(rel.substr(0, slash));
      if (level == after.end() || level->second != "d") __builtin_trap();
    }
  }
  return 0;
}
