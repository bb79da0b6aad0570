// SPDX-License-Identifier: GPL-3.0-or-later
// Covers as images, checked from the bytes the real program writes on a pseudo-terminal
// that answers its start-up queries like kitty does (or not at all), and in tmux
// without passthrough.

#include "app/TmuxSession.h"
#include "support/Fixtures.h"
#include "support/Process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <map>
#include <poll.h>
#include <pty.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

using namespace trovan;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr int kAlbums = 20;

// One artist with kAlbums albums of one track each; every album folder has a cover.png
// that is red on its left half and blue on its right half (64 × 32 pixels).
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

// The program on a 100 × 40 pseudo-terminal that reports no pixel size; `kitty` makes
// it answer the probe as kitty does (cell 10 × 20 pixels), else it stays silent.
class FakeTerminal {
public:
    FakeTerminal(const fs::path& home, const fs::path& music, bool kitty, const char* term)
        : kitty_(kitty) {
        struct winsize ws {};
        ws.ws_col = 100;
        ws.ws_row = 40;
        pid_ = forkpty(&fd_, nullptr, nullptr, &ws);
        if (pid_ == 0) {
            setenv("TROVAN_HOME", home.c_str(), 1);
            setenv("COLORTERM", "truecolor", 1);
            setenv("TERM", term, 1);
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
            answer();
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
    void answer() {
        if (!kitty_ || answered_ || out.find("\x1b[c") == std::string::npos) return;
        answered_ = true;
        send("\x1b_Gi=31;OK\x1b\\\x1b[6;20;10t\x1b[?62;22c");
    }

    bool kitty_;
    bool answered_ = false;
    pid_t pid_ = -1;
    int fd_ = -1;
};

std::map<std::string, std::string> keys(std::string_view control) {
    std::map<std::string, std::string> k;
    while (!control.empty()) {
        const auto comma = control.find(',');
        const auto item = control.substr(0, comma);
        const auto eq = item.find('=');
        if (eq != std::string_view::npos)
            k[std::string(item.substr(0, eq))] = std::string(item.substr(eq + 1));
        if (comma == std::string_view::npos) break;
        control.remove_prefix(comma + 1);
    }
    return k;
}

std::string unbase64(std::string_view s) {
    static const std::string abc =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned v = 0;
    int bits = 0;
    for (char c : s) {
        const auto i = abc.find(c);
        if (i == std::string::npos) continue;
        v = (v << 6) | static_cast<unsigned>(i);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((v >> bits) & 0xFF);
        }
    }
    return out;
}

struct Picture {
    int width = 0, height = 0;
    std::string rgb;
    int transmissions = 0;
};
struct Placement {
    int x = 0, y = 0, columns = 0, rows = 0;
};

// What a kitty terminal would hold after the program's output: the pictures sent to
// it and the placements on screen, keyed by (image id, placement id).
struct KittyState {
    std::map<int, Picture> pictures;
    std::map<std::pair<int, int>, Placement> placements;
    int deletions = 0;

    explicit KittyState(const std::string& out) {
        int cx = 0, cy = 0;
        std::string data;
        std::map<std::string, std::string> first;
        for (std::size_t p = 0; p < out.size();) {
            if (out.compare(p, 2, "\x1b[") == 0) {
                std::size_t q = p + 2;
                while (q < out.size() && !(out[q] >= 0x40 && out[q] <= 0x7e))
                    ++q;
                if (q < out.size() && out[q] == 'H') {
                    int row = 1, col = 1;
                    std::sscanf(out.c_str() + p + 2, "%d;%d", &row, &col);
                    cy = row - 1;
                    cx = col - 1;
                }
                p = q + 1;
                continue;
            }
            if (out.compare(p, 3, "\x1b_G") != 0) {
                ++p;
                continue;
            }
            const std::size_t st = out.find("\x1b\\", p);
            if (st == std::string::npos) break;
            const std::string body = out.substr(p + 3, st - p - 3);
            p = st + 2;
            const auto semi = body.find(';');
            auto k = keys(std::string_view(body).substr(0, semi));
            const std::string payload = semi == std::string::npos ? "" : body.substr(semi + 1);
            if (k.count("a") && k["a"] == "t") {
                first = k;
                data.clear();
            }
            if (!first.empty() && (k.count("m") || k.count("a"))) {
                data += payload;
                if (k["m"] == "0") {
                    const int id = std::stoi(first["i"]);
                    Picture& pic = pictures[id];
                    pic.width = std::stoi(first["s"]);
                    pic.height = std::stoi(first["v"]);
                    std::string raw = unbase64(data);
                    if (first["o"] == "z") {
                        std::string plain(static_cast<std::size_t>(pic.width) * pic.height * 3, 0);
                        uLongf size = static_cast<uLongf>(plain.size());
                        if (uncompress(reinterpret_cast<Bytef*>(plain.data()), &size,
                                       reinterpret_cast<const Bytef*>(raw.data()),
                                       static_cast<uLong>(raw.size())) == Z_OK)
                            plain.resize(size);
                        raw = plain;
                    }
                    pic.rgb = raw;
                    ++pic.transmissions;
                    first.clear();
                }
                continue;
            }
            if (k["a"] == "p") {
                placements[{std::stoi(k["i"]), std::stoi(k["p"])}] =
                    Placement{cx, cy, std::stoi(k["c"]), std::stoi(k["r"])};
            } else if (k["a"] == "d" && k["d"] == "i") {
                ++deletions;
                placements.erase({std::stoi(k["i"]), std::stoi(k["p"])});
            } else if (k["a"] == "d" && k["d"] == "a") {
                placements.clear();
            }
        }
    }
};

// Share of the pixels that match the picture expected for the test cover at w × h: red
// left of the middle, blue right of it (a band around the middle is not counted).
double matching(const Picture& pic) {
    int good = 0, counted = 0;
    for (int y = 0; y < pic.height; ++y)
        for (int x = 0; x < pic.width; ++x) {
            if (std::abs(2 * x - pic.width) < pic.width / 10) continue;
            const auto* px = reinterpret_cast<const unsigned char*>(
                &pic.rgb[(static_cast<std::size_t>(y) * pic.width + x) * 3]);
            const bool left = 2 * x < pic.width;
            const int r = left ? 255 : 0, b = left ? 0 : 255;
            ++counted;
            if (std::abs(px[0] - r) < 40 && px[1] < 40 && std::abs(px[2] - b) < 40) ++good;
        }
    return counted ? static_cast<double>(good) / counted : 0;
}

bool hasHalfBlocks(const std::string& out) {
    return out.find("\xE2\x96\x80") != std::string::npos; // ▀
}

class Graphics : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
        if (music_.empty()) music_ = makeAlbums(fixtures::sharedDir() / "graphics");
        home_ = std::make_unique<fixtures::TempDir>();
    }
    static fs::path music_;
    std::unique_ptr<fixtures::TempDir> home_;
};
fs::path Graphics::music_;

} // namespace

// Album covers go out once each as kitty images at the cells' pixel size, while 50 steps
// down and 50 back up move them around; the placements of rows that leave the list are
// deleted, and the help box hides the ones under it.
TEST_F(Graphics, KittyTransmitsEachCoverOnceAndDeletesPlacementsThatLeave) {
    FakeTerminal t(home_->path(), music_, true, "xterm-kitty");
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
    ASSERT_EQ(before.pictures.size(), static_cast<std::size_t>(kAlbums));
    for (const auto& [id, pic] : before.pictures) {
        EXPECT_EQ(pic.transmissions, 1) << "image " << id;
        EXPECT_EQ(pic.width, 100);
        EXPECT_EQ(pic.height, 100);
        EXPECT_GE(matching(pic), 0.95) << "image " << id;
    }
    EXPECT_GT(before.deletions, 0);
    // Back at the top: the first albums' covers, one placement each, in the cover column.
    ASSERT_FALSE(before.placements.empty());
    EXPECT_LE(before.placements.size(), 6u);
    for (const auto& [ids, p] : before.placements) {
        EXPECT_EQ(p.x, 36);
        EXPECT_EQ(p.columns, 10);
        EXPECT_GE(p.y, 4);
        EXPECT_LE(p.y + p.rows, 34);
    }

    t.key("?");
    t.pump(200ms);
    const KittyState help(t.out);
    EXPECT_LT(help.placements.size(), before.placements.size());
    t.key("\x1b");
    t.pump(200ms);
    const KittyState after(t.out);
    EXPECT_EQ(after.placements.size(), before.placements.size());
    for (const auto& [id, pic] : after.pictures)
        EXPECT_EQ(pic.transmissions, 1) << "image " << id;

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

// A terminal that answers nothing, and one that calls itself dumb (which is not even
// asked): half blocks, and no image bytes beyond the probe.
TEST_F(Graphics, SilentTerminalsGetHalfBlocks) {
    for (const char* term : {"xterm-256color", "dumb"}) {
        SCOPED_TRACE(term);
        FakeTerminal t(home_->path(), music_, false, term);
        ASSERT_TRUE(t.pump(20s, "Biblioteca al d\xC3\xAD"
                                "a"));
        t.pump(500ms);
        EXPECT_TRUE(hasHalfBlocks(t.out));
        const bool asked = t.out.find("\x1b_Gi=31") != std::string::npos;
        EXPECT_EQ(asked, std::string(term) != "dumb");
        EXPECT_EQ(t.out.find("a=t"), std::string::npos);
        EXPECT_EQ(t.out.find("\x1bP"), std::string::npos);
    }
}

// In tmux without passthrough, even with the outer terminal said to be kitty: half
// blocks, and nothing of the probe on screen.
TEST_F(Graphics, TmuxWithoutPassthroughGetsHalfBlocks) {
    if (!e2e::haveTmux()) GTEST_SKIP() << "tmux missing";
    e2e::Session s;
    s.environment = {{"KITTY_WINDOW_ID", "1"}};
    s.start({music_.string()});
    ASSERT_TRUE(s.waitFor("Biblioteca al d\xC3\xAD"
                          "a"))
        << s.screen();
    ASSERT_TRUE(s.waitFor("\xE2\x96\x80")) << s.screen();
    EXPECT_EQ(s.output().find("\x1b_G"), std::string::npos);
    EXPECT_EQ(s.output().find("\x1bPtmux"), std::string::npos);
    EXPECT_EQ(s.screen().find("OK"), std::string::npos);
}
