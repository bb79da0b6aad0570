// SPDX-License-Identifier: GPL-3.0-or-later
// Covers as images, checked from the bytes the real program writes on a pseudo-terminal
// that answers its start-up queries like kitty does.

#include "support/Fixtures.h"
#include "support/Process.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <map>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace trovan;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr int kAlbums = 20;

// One artist with kAlbums albums of one track each; every album folder has a cover.png
// (64 × 32 pixels).
fs::path makeAlbums(const fs::path& dir) {
    const fs::path music = dir / "music";
    fs::create_directories(music);
    const fs::path cover = dir / "cover.png";
    const auto made =
        fixtures::runProcess({"ffmpeg", "-v", "error", "-y", "-filter_complex",
                              "color=c=red:s=32x32[a];color=c=blue:s=32x32[b];[a][b]hstack",
                              "-frames:v", "1", cover.string()});
    if (made.status != 0) throw std::runtime_error("ffmpeg: " + made.output);
    for (int a = 1; a <= kAlbums; ++a) {
        char name[16];
        std::snprintf(name, sizeof name, "A%02d", a);
        const fs::path folder = music / name;
        fs::create_directories(folder);
        fixtures::Tone tone;
        tone.seconds = 0.2;
        tone.tags = {
            {"ARTIST", {"Alfa"}}, {"ALBUM", {name}}, {"TITLE", {"Pista"}}, {"TRACKNUMBER", {"1"}}};
        fixtures::write(folder, "01.flac", tone);
        fs::copy_file(cover, folder / "cover.png");
    }
    return music;
}

// The program on a 100 × 40 pseudo-terminal that reports no pixel size and answers the
// probe as kitty does (cell 10 × 20 pixels).
class FakeTerminal {
public:
    FakeTerminal(const fs::path& home, const fs::path& music) {
        struct winsize ws {};
        ws.ws_col = 100;
        ws.ws_row = 40;
        pid_ = forkpty(&fd_, nullptr, nullptr, &ws);
        if (pid_ == 0) {
            setenv("TROVAN_HOME", home.c_str(), 1);
            setenv("COLORTERM", "truecolor", 1);
            setenv("TERM", "xterm-kitty", 1);
            unsetenv("TMUX");
            unsetenv("STY");
            execl(TROVAN_BINARY, TROVAN_BINARY, music.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~FakeTerminal() {
        send("q");
        const auto end = std::chrono::steady_clock::now() + 5s;
        int status = 0;
        while (std::chrono::steady_clock::now() < end && waitpid(pid_, &status, WNOHANG) == 0)
            pump(10ms);
        if (waitpid(pid_, &status, WNOHANG) == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        close(fd_);
    }

    void send(const std::string& bytes) {
        if (write(fd_, bytes.data(), bytes.size()) < 0) return;
    }
    // Reads for `wait` (or until `text` shows up, when given), answering queries.
    bool pump(std::chrono::milliseconds wait, const std::string& text = {}) {
        const auto end = std::chrono::steady_clock::now() + wait;
        while (std::chrono::steady_clock::now() < end) {
            if (!text.empty() && out.find(text) != std::string::npos) return true;
            struct pollfd p {
                fd_, POLLIN, 0
            };
            if (poll(&p, 1, 10) <= 0) continue;
            char buf[65536];
            const ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0) break;
            out.append(buf, static_cast<std::size_t>(n));
            if (!answered_ && out.find("\x1b[c") != std::string::npos) {
                answered_ = true;
                send("\x1b_Gi=31;OK\x1b\\\x1b[6;20;10t\x1b[?62;22c");
            }
        }
        return text.empty() || out.find(text) != std::string::npos;
    }
    // Sends a key and lets the frame come out.
    void key(const std::string& bytes) {
        send(bytes);
        pump(40ms);
    }

    std::string out;

private:
    bool answered_ = false;
    pid_t pid_ = -1;
    int fd_ = -1;
};

// What a kitty terminal would hold after the program's output: how often each picture
// was sent, and the placements on screen by (image, placement) with the cell the cursor
// was on.
struct KittyState {
    std::map<int, int> sent;
    std::map<std::pair<int, int>, std::array<int, 4>> placements; // x, y, columns, rows
    int deletions = 0;

    explicit KittyState(const std::string& out) {
        int x = 0, y = 0;
        for (std::size_t p = 0; (p = out.find('\x1b', p)) != std::string::npos;) {
            int row = 0, col = 0;
            char end = 0;
            if (std::sscanf(out.c_str() + p, "\x1b[%d;%d%c", &row, &col, &end) == 3 && end == 'H')
                std::tie(x, y) = std::pair(col - 1, row - 1);
            if (out.compare(p++, 3, "\x1b_G") != 0) continue;
            const std::size_t st = out.find("\x1b\\", p);
            if (st == std::string::npos) break;
            const std::string body = out.substr(p + 2, st - p - 2);
            std::map<std::string, std::string> k;
            std::stringstream control(body.substr(0, body.find(';')));
            for (std::string item; std::getline(control, item, ',');)
                k[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
            auto num = [&](const char* key) { return std::atoi(k[key].c_str()); };
            if (k["a"] == "t") {
                ++sent[num("i")];
                EXPECT_EQ(num("s"), 100); // ten columns of 10 pixels,
                EXPECT_EQ(num("v"), 100); // five rows of 20
            }
            if (k["a"] == "p") {
                placements[{num("i"), num("p")}] = {x, y, num("c"), num("r")};
            } else if (k["a"] == "d" && k["d"] == "i") {
                ++deletions;
                placements.erase({num("i"), num("p")});
            } else if (k["a"] == "d" && k["d"] == "a") {
                placements.clear();
            }
        }
    }
};

bool hasHalfBlocks(const std::string& out) {
    return out.find("\xE2\x96\x80") != std::string::npos; // ▀
}

} // namespace

// Album covers go out once each as kitty images at the cells' pixel size, while 50 steps
// down and 50 back up move them around; the placements of rows that leave the list are
// deleted.
TEST(Graphics, KittyTransmitsEachCoverOnceAndDeletesPlacementsThatLeave) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    fixtures::TempDir dir;
    FakeTerminal t(dir.subdir("home"), makeAlbums(dir.path()));
    ASSERT_TRUE(t.pump(20s, "Biblioteca al d\xC3\xAD"
                            "a"))
        << t.out.substr(0, 2000);
    t.pump(1s);
    t.key("\t");
    for (int i = 0; i < 50; ++i)
        t.key("\x1b[B");
    for (int i = 0; i < 50; ++i)
        t.key("\x1b[A");
    t.pump(300ms);

    const KittyState before(t.out);
    EXPECT_FALSE(hasHalfBlocks(t.out));
    ASSERT_EQ(before.sent.size(), static_cast<std::size_t>(kAlbums));
    for (const auto& [id, times] : before.sent)
        EXPECT_EQ(times, 1) << "image " << id;
    EXPECT_GT(before.deletions, 0);
    // Back at the top: the first albums' covers, one placement each, in the cover column.
    ASSERT_FALSE(before.placements.empty());
    EXPECT_LE(before.placements.size(), 6u);
    for (const auto& [ids, p] : before.placements) {
        EXPECT_EQ(p[0], 36);
        EXPECT_EQ(p[2], 10);
        EXPECT_GE(p[1], 4);
        EXPECT_LE(p[1] + p[3], 34);
    }

    // Switched to half blocks: every picture of ours is deleted with its data.
    const std::size_t mark = t.out.size();
    t.send(":covers bloques\r");
    ASSERT_TRUE(t.pump(5s, "Car\xC3\xA1tulas: bloques"));
    t.pump(300ms);
    const std::string rest = t.out.substr(mark);
    EXPECT_NE(rest.find("\x1b_Ga=d,d=R,"), std::string::npos);
    EXPECT_TRUE(hasHalfBlocks(rest));
    EXPECT_EQ(rest.find("a=p"), std::string::npos);
}
