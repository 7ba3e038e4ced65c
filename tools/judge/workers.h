#pragma once

#include "judge/findings.h"
#include "judge/piece.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tessel::judge {

// Threads that compare pieces. The calling thread cuts them, enters their findings in the order in which they
// were cut, and compares some itself when the others have enough to do.
struct Workers {
    std::unique_ptr<Piece> current = std::make_unique<Piece>();  // being filled
    std::deque<std::unique_ptr<Piece>> handed_out;               // in their order
    std::vector<std::unique_ptr<Piece>> idle;

    std::mutex lock;
    std::condition_variable piece_waits;
    std::condition_variable piece_done;
    std::deque<Piece*> waiting;
    bool stopping = false;
    std::vector<std::thread> threads;

    Workers() = default;
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers();
};

// Starts `jobs - 1` threads; with one job every piece is compared by the caller.
void start_workers(Workers& workers, std::size_t jobs);

// Hands out the current piece and provides an empty one for the same run. May wait for earlier pieces and
// enter their findings: at most four pieces a job are under way. False at an invalid line.
bool hand_out_piece(Workers& workers, Findings& findings);

// Hands out the current piece and waits until everything is entered. False at an invalid line.
bool finish_pieces(Workers& workers, Findings& findings);

}  // namespace tessel::judge
