// Fonts (9): every font file fontconfig knows, by its base name.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

class CFont {
 public:
  // configFile empty: fontconfig's own configuration of this host.
  explicit CFont(std::string configFile = {}) : configFile_(std::move(configFile)) {}

  // 0, or -1 (logged) when fontconfig gave no configuration or no list.
  int enumFonts();
  void resetPtr() { cursor_ = 0; }
  // -1 at the end, else the name under the cursor and 0.
  int getNextFont(std::string& name);

  const std::vector<std::string>& fonts() const { return fonts_; }

 private:
  std::string configFile_;
  std::vector<std::string> fonts_;
  std::size_t cursor_ = 0;
};
