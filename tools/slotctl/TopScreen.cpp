// SPDX-License-Identifier: Apache-2.0
// top's full-screen view: draws the model's rows with ncurses and handles the keys. The rows
// and their rates come from TopModel; nothing here decides what they say.
#include "TopScreen.h"

#include "Cli.h"
#include "Signals.h"
#include "WriteRate.h"

#include <curses.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace slotctl {

namespace {

typedef std::chrono::steady_clock Clock;

// The terminal in curses mode for its lifetime, given back as it was on every way out.
//
// Curses writes the screen with blocking writes and retries one that is cut short, so a terminal
// that stopped taking output (Ctrl-S, a stalled ssh) holds the main thread inside refresh() or
// endwin(), where no stop signal reaches it. A watchdog thread therefore watches the stop signals
// (without taking them) for the terminal's lifetime: once one came, the view has a second to
// leave on its own; after that the watchdog discards the output the terminal still holds,
// gives it back its modes and what leaves curses' screen as far as it takes them at once, and
// ends the process with the stop status.
class Terminal {
public:
    Terminal() {
        const bool modesKnown = ::tcgetattr(STDOUT_FILENO, &modes_) == 0;
        // Multibyte names shown as characters; numbers keep their '.' (only LC_CTYPE is taken).
        std::setlocale(LC_CTYPE, "");
        screen_ = newterm(nullptr, stdout, stdin);
        if (screen_ == nullptr) {
            throw CommandError(ExitFailure, "top: cannot use this terminal (TERM is " +
                                                Quote(::getenv("TERM") ? ::getenv("TERM") : "") +
                                                "): use top --once or top --json");
        }
        cbreak();  // keys at once; Ctrl-C still raises SIGINT, which ends the view
        noecho();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        set_escdelay(50);
        curs_set(0);
        // What endwin would send: leave the screen, cursor back, attributes off, keypad off.
        for (const char* capability : {"rmcup", "cnorm", "sgr0", "rmkx"}) {
            const char* text = tigetstr(capability);
            if (text != nullptr && text != reinterpret_cast<char*>(-1)) {
                leave_ += text;
            }
        }
        // Ctrl-\ (SIGQUIT, which cbreak() leaves on) would end the process with the terminal
        // in curses' modes: while the view is up it is a stop as Ctrl-C is, handed on as SIGTERM
        // to the stop descriptor.
        struct sigaction quit {};
        quit.sa_handler = [](int) {
            const int saved = errno;
            ::kill(::getpid(), SIGTERM);
            errno = saved;
        };
        sigemptyset(&quit.sa_mask);
        quit.sa_flags = SA_RESTART;
        quitSet_ = ::sigaction(SIGQUIT, &quit, &quitBefore_) == 0;
        if (::pipe2(left_, O_CLOEXEC) == 0) {
            watchdog_ = std::thread([this, modesKnown] { Watch(modesKnown); });
        }
    }
    ~Terminal() {
        endwin();
        if (quitSet_) {
            ::sigaction(SIGQUIT, &quitBefore_, nullptr);
        }
        delscreen(screen_);
        if (watchdog_.joinable()) {
            ::close(left_[1]);  // the view left on its own
            watchdog_.join();
            ::close(left_[0]);
        }
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

private:
    void Watch(bool modesKnown) {
        pollfd fds[3] = {{left_[0], POLLIN, 0},
                         {StopSignals::Fd(), POLLIN, 0},
                         {StopSignals::TakenFd(), POLLIN, 0}};
        while (::poll(fds, 3, -1) < 0 && errno == EINTR) {
        }
        if (fds[0].revents != 0) {
            return;
        }
        int left;
        do {
            left = ::poll(fds, 1, 1000);
        } while (left < 0 && errno == EINTR);
        if (left > 0) {
            return;
        }
        ::tcflush(STDOUT_FILENO, TCOFLUSH);
        if (modesKnown) {
            ::tcsetattr(STDOUT_FILENO, TCSANOW, &modes_);
        }
        WriteOut(leave_);  // after a stop it waits for nothing
        std::_Exit(ExitInterrupted);
    }

    SCREEN* screen_;
    termios modes_{};         // the terminal's modes before curses changed them
    std::string leave_;       // what endwin sends to leave the screen
    int left_[2] = {-1, -1};  // closed once the view left on its own
    struct sigaction quitBefore_ {};
    bool quitSet_ = false;
    std::thread watchdog_;
};

class View {
public:
    View(double interval, const std::function<std::vector<TopObservation>()>& look)
        : interval_(interval), look_(look) {}

    int Run() {
        Terminal terminal;
        const auto step = std::chrono::microseconds(static_cast<std::int64_t>(interval_ * 1e6));
        Clock::time_point due = Clock::now();
        for (;;) {
            const Clock::time_point now = Clock::now();
            if (!paused_ && now >= due) {
                model_.Update(
                    look_(),
                    std::chrono::duration<double>(Clock::now().time_since_epoch()).count());
                if (StopSignals::Received()) {
                    return ExitInterrupted;  // the look stopped part way
                }
                due += step;
                if (due <= now) {
                    due = now + step;  // late (a slow look, a suspended process): start afresh
                }
            }
            Draw();
            // Paused: only a key or a signal ends the wait. Late: no wait.
            const std::int64_t untilDue =
                (std::chrono::duration_cast<std::chrono::microseconds>(due - Clock::now()).count() +
                 999) /
                1000;
            const int waitMs = paused_ ? -1 : static_cast<int>(std::max<std::int64_t>(0, untilDue));
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {StopSignals::Fd(), POLLIN, 0}};
            // A resize interrupts the wait (EINTR); the key loop below then gets KEY_RESIZE.
            const int ready = ::poll(fds, 2, waitMs);
            if (ready < 0 && errno != EINTR) {
                throw CommandError(ExitFailure, "top: poll failed");
            }
            if ((fds[1].revents & POLLIN) != 0 && StopSignals::Received()) {
                return ExitInterrupted;
            }
            for (int key = getch(); key != ERR; key = getch()) {
                if (!Key(key)) {
                    return ExitOk;
                }
            }
            if ((fds[0].revents & (POLLHUP | POLLERR)) != 0) {
                return ExitFailure;  // the terminal is gone
            }
        }
    }

private:
    // False for the key that quits.
    bool Key(int key) {
        if (editing_) {
            if (key == 27) {  // Esc: the filter stays as it was
                editing_ = false;
            } else if (key == '\n' || key == '\r' || key == KEY_ENTER) {
                filter_ = typed_;
                editing_ = false;
            } else if (key == KEY_BACKSPACE || key == 127 || key == 8) {
                // One character back, a multibyte one whole.
                while (!typed_.empty() && (typed_.back() & 0xc0) == 0x80) {
                    typed_.pop_back();
                }
                if (!typed_.empty()) {
                    typed_.pop_back();
                }
            } else if (key >= 32 && key <= 255 && key != 127) {
                typed_ += static_cast<char>(key);
            }
            return true;
        }
        switch (key) {
            case 'q':
            case 'Q':
                return false;
            case 's':
                sort_ = TopModel::NextSort(sort_);
                break;
            case 'p':
                paused_ = !paused_;
                break;
            case '/':
                editing_ = true;
                typed_ = filter_;
                break;
            default:  // KEY_RESIZE too: every pass draws at the present size
                break;
        }
        return true;
    }

    static void Put(int y, const std::string& text, int attributes = A_NORMAL) {
        // The bottom right cell is left alone: writing it would scroll some terminals.
        const int width = y == LINES - 1 ? COLS - 1 : COLS;
        if (y < 0 || y >= LINES || width <= 0) {
            return;
        }
        std::string line = FitColumns(text, static_cast<std::size_t>(width));
        line.erase(line.find_last_not_of(' ') + 1);
        attrset(attributes);
        mvaddstr(y, 0, line.c_str());
        attrset(A_NORMAL);
    }

    void Draw() {
        erase();
        const std::vector<TopRow> rows = model_.Rows(sort_, filter_);
        const std::size_t width = static_cast<std::size_t>(std::max(COLS, 1));
        // The most telling first: the line is cut at the screen's edge.
        std::string status = paused_ ? "PAUSED  " : "";
        const std::size_t pools = static_cast<std::size_t>(std::count_if(
            model_.All().begin(), model_.All().end(), [](const TopRow& row) { return row.pool; }));
        status += std::to_string(model_.All().size() - pools) + " slots";
        if (pools != 0) {
            status += ", " + std::to_string(pools) + (pools == 1 ? " pool" : " pools");
        }
        if (!filter_.empty()) {
            status += " (" + std::to_string(rows.size()) + " match '" + Printable(filter_) + "')";
        }
        status += "  sort " + std::string(TopModel::SortName(sort_)) + "  every " +
                  Fixed(interval_, interval_ < 1 ? 2 : 1) + " s";
        Put(0, status);
        Put(1, TopHeading(rows, width), A_REVERSE);
        const int first = 2;
        const int last = LINES - 2;  // the line above the key help
        const int room = std::max(0, last - first + 1);
        const bool cut = static_cast<int>(rows.size()) > room;
        const int shown = cut ? std::max(0, room - 1) : static_cast<int>(rows.size());
        for (int i = 0; i < shown; ++i) {
            Put(first + i, TopLine(rows[static_cast<std::size_t>(i)], rows, width));
        }
        if (cut) {
            Put(first + shown, "... " + std::to_string(rows.size() - shown) + " more");
        }
        if (editing_) {
            Put(LINES - 1, "filter by name: /" + Printable(typed_) +
                               "_   (Enter applies, Esc cancels, empty shows all)");
        } else {
            Put(LINES - 1, "q quit  s sort  / filter  p pause", A_REVERSE);
        }
        refresh();
    }

    const double interval_;
    const std::function<std::vector<TopObservation>()> look_;
    TopModel model_;
    TopSort sort_ = TopSort::Name;
    std::string filter_;
    bool editing_ = false;
    std::string typed_;
    bool paused_ = false;
};

}  // namespace

int RunTopScreen(double interval, const std::function<std::vector<TopObservation>()>& look) {
    return View(interval, look).Run();
}

}  // namespace slotctl
