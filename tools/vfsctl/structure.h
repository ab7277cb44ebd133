// The structure of a file as lines of text, one for each item or node, also of files that the driver refuses.
#pragma once

#include <string>

void print_items(const std::string &file);
void print_tree_nodes(const std::string &file); // with their entries
