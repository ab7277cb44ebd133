// Writes the two words of a file that was found sound, after what was pending: the only change that this folder makes.
// The caller holds the file's lock, so that nobody else has it open.
#pragma once

#include <string>

#include "format/check.h"

// Why this file must not be called closed; empty: it may.
std::string reason_not_to_clear(const check_result &found);

// Finishes a pending change, cuts the file to its end, and marks it as closed, each on the disk before the next. Returns
// 0, or the error number of the call that failed; then the words are as they were.
int clear_words(int descriptor, const check_result &found);
