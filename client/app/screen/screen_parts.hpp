// The parts of screens: how they are made out of texts from outside, and which of them a screen has.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <variant>

#include "app/screen/screen.hpp"
#include "domain/json.hpp"

namespace ravok {

// The action of the button beside a field.
inline constexpr const char* browse_action = "browse";

// Returns the text with a full stop at its end; nothing stays nothing.
std::string sentence(std::string text);

// Returns a screen of that heading, in the name of the product, without anything below it.
Screen new_screen(std::string_view id, std::string_view heading, TextTone tone = TextTone::normal);

// Adds a text, as shown_text gives it, unless it is empty.
void add_text(Screen& screen, std::string_view id, std::string_view text, TextTone tone = TextTone::normal);

// Adds a line for each of the paths, with `lead` before it; for more than four, the fifth line says how many more.
void add_paths(Screen& screen, std::string_view id, std::string_view lead, const Json& paths, TextTone tone);

// Whether the screen has an item of this kind and name.
template <typename Item>
bool has_item(const Screen& screen, std::string_view id) {
  return std::any_of(screen.items.begin(), screen.items.end(), [&](const ScreenItem& item) {
    const Item* const found = std::get_if<Item>(&item);
    return found != nullptr && found->id == id;
  });
}

// Whether the screen has a button of this name, such as the one beside a field.
bool has_action(const Screen& screen, std::string_view id);

}  // namespace ravok
