// Send File driven by a console's bytes over a socket pair: the request
// (its folder code, after the first input byte, patched to one of the
// console's codes), then the file's headers, forks and Finder information.
// The console's end is closed once the input is sent, so a dialogue cut
// short ends at once.
//
// Whatever the bytes, the handler returns, leaves no descriptor open, and
// writes nothing but the named file and its "._" sidecar in the folder the
// code names (the package folder for the agent's own package), a link to
// that file on a user's desktop for the desktop codes, and the installer's
// log for the package: no link planted in the folder is followed and
// nothing already there changes. Its replies are whole acknowledgements, a
// refusal only as the last; a sidecar that was finished reads back as
// AppleDouble with the resource length its size implies.
#include <cstddef>
#include <cstdint>
#include <string>

#include "actions/apple_double.h"
#include "actions/send_file_handler.h"
#include "transfer_sandbox.h"

using namespace transfer_sandbox;

namespace {

constexpr std::size_t kMaxInput = 64 * 1024;

void checkSidecar(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // Unfinished (the dialogue ended inside the resource fork): no header
  // yet, and the resource bytes start at their own offset.
  const std::size_t head = std::min(bytes.size(), AppleDouble::kHeaderSize);
  if (bytes.compare(0, head, std::string(head, '\0')) == 0) return;
  if (bytes.size() < AppleDouble::kResourceOffset) __builtin_trap();
  const auto header = AppleDouble::header(
      static_cast<std::uint32_t>(bytes.size() - AppleDouble::kResourceOffset));
  if (bytes.compare(0, header.size(), std::string(header.begin(), header.end())) != 0)
    __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > kMaxInput) return 0;
  Sandbox& box = Sandbox::instance();
  const Bytes stream = streamOf(data, size);
  const std::uint32_t code = codeOf(stream);
  const std::string name = nameOf(stream);
  const bool install = name == kPackageName && code == fourCC("XXXY");
  const std::string folder = install ? box.packageFolder() : box.folderOf(code);

  box.reset();
  const Sandbox::Listing before = box.list();
  const int fdsBefore = openFds();

  const Bytes out = converse(stream, [&](Session& s) { sendFile(s, box.settings()); });

  if (openFds() != fdsBefore) __builtin_trap();
  checkAcks(out);
  if (out.empty()) __builtin_trap();  // every dialogue gets at least one answer
  if (folder.empty() || !validName(name)) {
    // An unknown folder or a name that would leave it: refused at once.
    if (out.size() != varlo::varlo_manage::kSize || out[2] != 0) __builtin_trap();
  }

  const Sandbox::Listing after = box.list();
  for (const auto& [rel, what] : before) {
    const auto it = after.find(rel);
    if (it == after.end() || it->second != what) __builtin_trap();  // nothing there changes
  }
  const std::string prefix = box.path() + "/";
  const std::string file = folder.substr(std::min(prefix.size(), folder.size())) + name;
  const std::string sidecar = folder.substr(std::min(prefix.size(), folder.size())) + "._" + name;
  const std::string link = "users/ann/Desktop/" + name + ".link";
  for (const auto& [rel, what] : after) {
    if (before.count(rel) != 0) continue;
    if (folder.empty() || !validName(name)) __builtin_trap();
    if (rel == file && what.rfind("f:", 0) == 0) continue;
    if (rel == sidecar && what.rfind("f:", 0) == 0) {
      checkSidecar(box / rel);
      continue;
    }
    if (rel == link && isLinkCode(code) && what == "l:" + folder + name && after.count(file) != 0)
      continue;
    if (rel == "install.log" && install && what.rfind("f:", 0) == 0) continue;
    __builtin_trap();
  }
  return 0;
}
