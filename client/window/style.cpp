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
// The toolkit refers to a font by the family, behind a letter for its weight; a blank leaves the weight open. A font of
// a theme gets a family of its own, so that no other one of the system or the theme is taken for it.
constexpr const char* regular_name = " ravok-regular";
constexpr const char* bold_name = " ravok-bold";
constexpr const char* title_name = " ravok-title";

// Returns the fonts that were added to those of the system, in the order in which they were.
FcFontSet* added_fonts() { return FcConfigGetFonts(FcConfigGetCurrent(), FcSetApplication); }

int count_of(const FcFontSet* fonts) { return fonts == nullptr ? 0 : fonts->nfont; }

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
  if (theme_.regular_font && use_font(theme_regular, regular_name, *theme_.regular_font)) {
    regular_font_ = theme_regular;
    bold_font_ = theme_regular;
    title_font_ = theme_regular;
  }
  if (theme_.bold_font && use_font(theme_bold, bold_name, *theme_.bold_font)) {
    bold_font_ = theme_bold;
    title_font_ = theme_bold;
  }
  if (theme_.title_font && use_font(theme_title, title_name, *theme_.title_font)) {
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

// Makes the font of a file known to the toolkit. Returns whether it can be used.
bool Style::use_font(Fl_Font slot, const char* name, const std::string& bytes) {
  MemoryFile file(bytes);
  const std::string path = path_utf8(file.path());
  const int before = count_of(added_fonts());
  if (FcConfigAppFontAddFile(FcConfigGetCurrent(), reinterpret_cast<const FcChar8*>(path.c_str())) != FcTrue) {
    return false;
  }
  FcFontSet* const fonts = added_fonts();
  if (count_of(fonts) == before) {
    return false;
  }
  for (int i = before; i < fonts->nfont; ++i) {
    FcPatternDel(fonts->fonts[i], FC_FAMILY);
    FcPatternAddString(fonts->fonts[i], FC_FAMILY, reinterpret_cast<const FcChar8*>(name + 1));
  }
  files_.push_back(std::move(file));
  Fl::set_font(slot, name);
  return true;
}

}  // namespace ravok
