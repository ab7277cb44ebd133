// What a survey of a file found: as JSON, from which statistics and pictures are made, and as lines for people.
#pragma once

#include <functional>
#include <string>

#include "format/survey.h"
#include "json.h"

// Holds the file, goes through it with the options that `options_for` returns, shows how far it is, and throws when the
// user or the storage stops it. A file that is damaged or no file of the driver is no error.
file_survey survey_of(const std::string &path, const std::function<survey_options(file_image &)> &options_for);

double percent(uint64_t part, uint64_t whole); // 0 of nothing
std::string size_text(uint64_t bytes);         // "1.5 MiB"

json_value survey_facts(const std::string &file, const file_survey &found);
void print_trees(const json_value &trees); // "trees" of the facts
