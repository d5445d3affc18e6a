// Hand-written matchers for the rows of the expression table that the large
// listings run on nearly every line: a keyword, blanks, then one value. They
// answer only for a line of plain ASCII with no line feed but a last one, and
// only when the match at the keyword's first place is certain; anything else
// is left to regexec. Stateless; safe on any thread.
#pragma once

#include <regex.h>

#include <string>

// What rx_plain_match could not settle: the caller must run the expression.
const int RX_PLAIN_UNSURE = -1;

// Row `row` of the table on `text`, filling `pmatch` as regexec does: 0 with
// the captures, RX_PLAIN_UNSURE when it cannot tell. Never REG_NOMATCH: a
// line that would not match is left to the expression.
// REQUIRES: rx_plain_locale_ok() held when the table in use was compiled.
int rx_plain_match(int row, const std::string& text, size_t nmatch, regmatch_t* pmatch);

// True when the locale in force classes every ASCII byte as "C" does and
// reads it as one character, as the matchers assume.
bool rx_plain_locale_ok();
