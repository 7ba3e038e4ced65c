#pragma once

namespace tessel::ctl {

enum class ExitStatus : int { ok = 0, answer_is_no = 1, asked_wrongly = 2, nobody_answers = 3 };

// Reads the command line and does what it asks for. Returns the exit status; a `run` that succeeds does not
// return.
int run_command_line(int argc, const char* const* argv);

}  // namespace tessel::ctl
