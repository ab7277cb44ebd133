// The page that the command map fills with data: map.html, made a string when the tool is built.
#pragma once

extern const char *const map_page;
