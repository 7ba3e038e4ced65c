#include "judge/workers.h"

#include <exception>
#include <utility>

namespace tessel::judge {

namespace {

constexpr std::size_t pieces_per_job = 4;

void compare(Piece& piece) {
    try {
        compare_piece(piece);
    } catch (const std::exception& fault) {  // no memory
        piece.found.error = fault.what();
    }
}

void work(Workers& workers) {
    std::unique_lock<std::mutex> guard(workers.lock);
    while (true) {
        workers.piece_waits.wait(guard, [&] { return workers.stopping || !workers.waiting.empty(); });
        if (workers.stopping) {
            return;
        }
        Piece& piece = *workers.waiting.front();
        workers.waiting.pop_front();
        guard.unlock();
        compare(piece);
        guard.lock();
        piece.done = true;
        workers.piece_done.notify_one();
    }
}

// Compares a waiting piece, or waits for the oldest one when all are being compared.
void help(Workers& workers) {
    std::unique_lock<std::mutex> guard(workers.lock);
    if (workers.waiting.empty()) {
        workers.piece_done.wait(guard, [&] { return workers.handed_out.front()->done; });
        return;
    }
    Piece& piece = *workers.waiting.front();
    workers.waiting.pop_front();
    guard.unlock();
    compare(piece);
    guard.lock();
    piece.done = true;
}

bool is_done(Workers& workers, const Piece& piece) {
    const std::lock_guard<std::mutex> guard(workers.lock);
    return piece.done;
}

// Enters the findings of pieces that are done, the oldest first, up to one that is not. False at an invalid
// line.
bool enter_done(Workers& workers, Findings& findings) {
    while (!workers.handed_out.empty() && is_done(workers, *workers.handed_out.front())) {
        std::unique_ptr<Piece> piece = std::move(workers.handed_out.front());
        workers.handed_out.pop_front();
        const bool good = enter_piece(findings, *piece);
        clear_piece(*piece);
        workers.idle.push_back(std::move(piece));
        if (!good) {
            return false;
        }
    }
    return true;
}

void hand_out(Workers& workers) {
    workers.handed_out.push_back(std::move(workers.current));
    {
        const std::lock_guard<std::mutex> guard(workers.lock);
        workers.waiting.push_back(workers.handed_out.back().get());
    }
    workers.piece_waits.notify_one();
    if (workers.idle.empty()) {
        workers.current = std::make_unique<Piece>();
    } else {
        workers.current = std::move(workers.idle.back());
        workers.idle.pop_back();
    }
    const Piece& before = *workers.handed_out.back();
    workers.current->run = before.run;
    workers.current->options = before.options;
    workers.current->truth_name = before.truth_name;
    workers.current->output_name = before.output_name;
}

}  // namespace

Workers::~Workers() {
    {
        const std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    piece_waits.notify_all();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void start_workers(Workers& workers, std::size_t jobs) {
    for (std::size_t index = 1; index < jobs; ++index) {
        workers.threads.emplace_back([&workers] { work(workers); });
    }
}

bool hand_out_piece(Workers& workers, Findings& findings) {
    if (workers.threads.empty()) {
        compare(*workers.current);
        const bool good = enter_piece(findings, *workers.current);
        clear_piece(*workers.current);
        return good;
    }
    hand_out(workers);
    while (workers.handed_out.size() >= pieces_per_job * (workers.threads.size() + 1)) {
        help(workers);
        if (!enter_done(workers, findings)) {
            return false;
        }
    }
    return true;
}

bool finish_pieces(Workers& workers, Findings& findings) {
    if (!hand_out_piece(workers, findings)) {
        return false;
    }
    while (!workers.handed_out.empty()) {
        if (!enter_done(workers, findings)) {
            return false;
        }
        if (!workers.handed_out.empty()) {
            help(workers);
        }
    }
    return true;
}

}  // namespace tessel::judge
