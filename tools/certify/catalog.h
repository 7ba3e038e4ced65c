#pragma once

#include "certify/case.h"

#include <string>
#include <vector>

// The cases that can be run: those that come with the program, and those of the user's folders.
namespace tessel::certify {

// The folder of the cases that come with the program: TESSEL_CASES of the environment; else certify/cases of
// the source tree when the program is in its build/PRESET; else share/tessel/certify/cases beside the folder
// that the program is in, then below /usr. Empty when there is none.
std::string catalog_folder();

// Adds the cases of FOLDER/GROUP/CASE.toml. Every fault is one line in `faults`; a case that is there already
// is one. True when there is none.
bool add_cases(const std::string& folder, std::vector<Case>& cases, std::vector<std::string>& faults);

// Puts cases in order: the seven groups from what is simple to what is hard, then others by name; within
// a group by name.
void sort_cases(std::vector<Case>& cases);

// Leaves the cases of those groups and of those names, of both where both are given; all when both are empty.
// False with a reason in `error` for a group or name that no case has, and when nothing is left.
bool select_cases(const std::vector<std::string>& groups, const std::vector<std::string>& names,
                  std::vector<Case>& cases, std::string& error);

// A line a case, "GROUP/CASE  TITLE".
std::string list_text(const std::vector<Case>& cases);

// What a case is about, for people.
std::string explain_text(const Case& each);

// The parts of "a,b,c"; empty parts are left out.
std::vector<std::string> split_list(const std::string& text);

}  // namespace tessel::certify
