#include "window/style.hpp"

#include <memory>

#include <FL/Fl.H>
#include <FL/fl_draw.H>
#include <fontconfig/fontconfig.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/foreign_folders.hpp"

namespace ravok {
namespace {

constexpr Fl_Font theme_regular = FL_FREE_FONT;
constexpr Fl_Font theme_bold = FL_FREE_FONT + 1;
constexpr Fl_Font theme_title = FL_FREE_FONT + 2;
constexpr std::size_t theme_fonts = 3;

// Returns the family of the font in a file, or nothing where the library cannot read it.
std::string family_of(const std::string& path) {
  int count = 0;
  const std::unique_ptr<FcPattern, decltype(&FcPatternDestroy)> font(
      FcFreeTypeQuery(reinterpret_cast<const FcChar8*>(path.c_str()), 0, nullptr, &count), &FcPatternDestroy);
  FcChar8* family = nullptr;
  if (!font || FcPatternGetString(font.get(), FC_FAMILY, 0, &family) != FcResultMatch) {
    return {};
  }
  return reinterpret_cast<const char*>(family);
}

// The toolkit ends the process where it finds no font at all.
void require_fonts() {
  const FcFontSet* const fonts = FcConfigGetFonts(FcConfigGetCurrent(), FcSetSystem);
  require(fonts != nullptr && fonts->nfont > 0, "display", "This system has no fonts to write in a window with");
}

}  // namespace

Style::Style() : theme_(ravok::theme()) {
  // What root would leave in another user's home, such as a list of fonts, that user could not replace.
  if (foreign_home()) {
    FcConfigEnableHome(FcFalse);
  }
  require_fonts();
  font_names_.reserve(theme_fonts);
  if (theme_.regular_font && use_font(theme_regular, ' ', *theme_.regular_font)) {
    regular_font_ = theme_regular;
    bold_font_ = theme_regular;
    title_font_ = theme_regular;
  }
  if (theme_.bold_font && use_font(theme_bold, 'B', *theme_.bold_font)) {
    bold_font_ = theme_bold;
    title_font_ = theme_bold;
  }
  if (theme_.title_font && use_font(theme_title, ' ', *theme_.title_font)) {
    title_font_ = theme_title;
  }
}

Fl_Color Style::tone_color(TextTone tone) const {
  switch (tone) {
    case TextTone::muted:
      return color(theme_.muted);
    case TextTone::warning:
      return color(theme_.warning);
    case TextTone::success:
      return color(theme_.success);
    case TextTone::normal:
      break;
  }
  return color(theme_.text);
}

// Makes the font of a file known under its family, in the weight that the letter stands for.
bool Style::use_font(Fl_Font slot, char face, const std::string& bytes) {
  MemoryFile file(bytes);
  const std::string path = path_utf8(file.path());
  const std::string family = family_of(path);
  if (family.empty() || FcConfigAppFontAddFile(nullptr, reinterpret_cast<const FcChar8*>(path.c_str())) != FcTrue) {
    return false;
  }
  files_.push_back(std::move(file));
  font_names_.push_back(face + family);
  Fl::set_font(slot, font_names_.back().c_str());
  return true;
}

}  // namespace ravok
