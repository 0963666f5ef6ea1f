// Stateless helpers on paths, names, text fields and the password cipher.
#pragma once

#include <dirent.h>

#include <cstdint>
#include <sstream>
#include <string>


class Util {
 public:
  // stat(path) and test the directory bit. Throws std::string
  // "Error getting stats for file.  File: PATH Error: ERRNO" when stat fails.
  static bool isDir(std::string path);

  // 0 or the failing errno; EEXIST counts as success. Recursive mode makes the
  // ancestors of path (not path itself unless it ends in '/'), so callers can
  // pass a file's path to create its folders.
  static int makeDir(std::string path, bool recursive);

  // opendir, throwing std::string "Error opening directory: PATH Error: ERRNO".
  static DIR* openDir(const std::string& path);

  // 0 with the next name, 1 at the end, -1 on a read error. "." and ".." are
  // returned like any other name.
  static int getNextFile(DIR* dir, std::string& name);

  // True when PROC_ROOT/name is a directory and name starts with digits.
  // May throw as isDir does.
  static bool isProcessDir(std::string name, const std::string& procRoot = "/proc");

  // Substring test (not a suffix test) for library, object and image names.
  static bool isNonExeFile(const std::string& name);

  // "10.4.11b" -> 0x0A040B: 16-bit fields shifted by 8 bits, unmasked.
  static void convertVersiontoLong(const std::string& v, unsigned long& out);

  // Pascal string from C string; max is the whole field size (<= 256).
  static void CtoPString(const char* src, char* dst, int max);
  // C string from Pascal string. The terminating NUL goes at the Pascal
  // length even when max stopped the copy earlier, so dst must hold len + 1.
  static void PtoCString(const char* src, char* dst, int max);

  // Keeps the low 8 bits of each UTF-16 unit; dst is zeroed and terminated.
  static int UnicodeToASCII(const std::uint16_t* src, unsigned long count, char* dst,
                            unsigned long size);

  // Kernel release and distribution from the kernel banner. Throws
  // std::string "Could not open /proc/version.  Error: ERRNO".
  static void getLinuxVersion(std::string& version, std::string& distro,
                              const std::string& versionFile = "/proc/version");
  // The same from the banner's text, as getLinuxVersion read it.
  static void parseLinuxVersion(const std::string& banner, std::string& version,
                                std::string& distro);

  // 1 if the IPv4 address (host order, 192.0.2.1 == 0xC0000201) may be
  // reported, 0 if not. A bit-subset test against each mask, not equality,
  // so 1.0.0.0 and 126.0.0.1 are refused along with 127.0.0.1.
  static int isValidIP(unsigned long ip);

  // "xx:xx:xx:xx:xx:xx" from six bytes; out holds 18. Null pointers: nothing.
  static void formatEthAddr(const unsigned char* addr, char* out);

  // Empties a string stream and resets its state, for reuse.
  static void clearStream(std::stringstream& s);

  // DES-CBC with the agent's fixed key, IV = key. len bytes in blocks of 8;
  // a final partial block is zero-padded on encryption, and only len bytes
  // are written on decryption, so out must hold len rounded up to 8 bytes
  // when enciphering.
  static void Encrypt(const char* in, char* out, int len);
  static void Decrypt(const char* in, char* out, int len);
};
