#include "software/font.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <memory>
#include <set>

#include "core/vllog.h"

namespace {

struct ConfigDestroy {
  void operator()(FcConfig* c) const { FcConfigDestroy(c); }
};
struct PatternDestroy {
  void operator()(FcPattern* p) const { FcPatternDestroy(p); }
};
struct ObjectSetDestroy {
  void operator()(FcObjectSet* o) const { FcObjectSetDestroy(o); }
};
struct FontSetDestroy {
  void operator()(FcFontSet* s) const { FcFontSetDestroy(s); }
};

// A configuration of our own for each listing, so that fonts installed
// since the last one are seen and no global state is shared between workers.
FcConfig* loadConfig(const std::string& file) {
  if (file.empty()) return FcInitLoadConfigAndFonts();
  FcConfig* config = FcConfigCreate();
  if (config == nullptr) return nullptr;
  if (!FcConfigParseAndLoad(config, reinterpret_cast<const FcChar8*>(file.c_str()), FcTrue) ||
      !FcConfigBuildFonts(config)) {
    FcConfigDestroy(config);
    return nullptr;
  }
  return config;
}

}  // namespace

int CFont::enumFonts() {
  std::unique_ptr<FcConfig, ConfigDestroy> config(loadConfig(configFile_));
  if (!config) {
    Log->LogMessage("Failed to load the font configuration" +
                    (configFile_.empty() ? std::string(".") : " " + configFile_ + "."));
    return -1;
  }
  std::unique_ptr<FcPattern, PatternDestroy> all(FcPatternCreate());
  std::unique_ptr<FcObjectSet, ObjectSetDestroy> fields(FcObjectSetBuild(FC_FILE, nullptr));
  if (!all || !fields) {
    Log->LogMessage("Failed to get the list of fonts.");
    return -1;
  }
  std::unique_ptr<FcFontSet, FontSetDestroy> list(FcFontList(config.get(), all.get(), fields.get()));
  if (!list) {
    Log->LogMessage("Failed to get the list of fonts.");
    return -1;
  }
  // A collection file holds several faces, each listed on its own: one
  // entry per file.
  std::set<std::string> files;
  for (int i = 0; i < list->nfont; ++i) {
    FcChar8* file = nullptr;
    if (FcPatternGetString(list->fonts[i], FC_FILE, 0, &file) == FcResultMatch && file != nullptr)
      files.insert(reinterpret_cast<const char*>(file));
  }
  for (const std::string& path : files) {
    const auto slash = path.rfind('/');
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (!base.empty()) fonts_.push_back(std::move(base));
  }
  std::sort(fonts_.begin(), fonts_.end());
  cursor_ = 0;
  return 0;
}

int CFont::getNextFont(std::string& name) {
  if (cursor_ >= fonts_.size()) return -1;
  name = fonts_[cursor_++];
  return 0;
}
