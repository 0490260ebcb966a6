// The characters that a terminal does not show as themselves.
#pragma once

namespace tarnwick {

// Whether the character is a control character, breaks the line, changes the direction of the text, or has no glyph:
// general category Cc, Cf, Zl or Zp, or property Default_Ignorable_Code_Point. The source of the table are
// DerivedGeneralCategory.txt and DerivedCoreProperties.txt of Unicode 17.0. Blanks of every width and characters for
// private use are visible.
bool isInvisible(char32_t character);

}  // namespace tarnwick
