// SPDX-License-Identifier: GPL-3.0-or-later
// The real program on a private session bus, driven by real media-player clients
// (playerctl, dbus-send, dbus-monitor).

#include "app/TmuxSession.h"

#include <algorithm>
#include <cmath>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace trovan;
using namespace trovan::e2e;

namespace {

const char* const kName = "org.mpris.MediaPlayer2.trovan";
const char* const kPath = "/org/mpris/MediaPlayer2";
const char* const kPlayer = "org.mpris.MediaPlayer2.Player";

bool haveTools() {
    return haveTmux() && fixtures::available() && fixtures::SessionBus::available() &&
           fixtures::onPath("playerctl") && fixtures::onPath("dbus-send") &&
           fixtures::onPath("dbus-monitor");
}

#define REQUIRE_BUS_TOOLS()                                                                        \
    if (!haveTools()) GTEST_SKIP() << "tmux, ffmpeg, dbus-daemon, playerctl or dbus-send missing"

// Clients of the private bus (they find it through the environment).
struct Clients {
    explicit Clients(const std::string& address) {
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    }
    std::string ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"playerctl", "-p", "trovan"});
        return trim(fixtures::runProcess(args).output);
    }
    std::string meta(const std::string& key) { return ctl({"metadata", key}); }
    std::string trackId() {
        std::string id = meta("mpris:trackid"); // quoted by playerctl
        id.erase(std::remove(id.begin(), id.end(), '\''), id.end());
        return id;
    }
    double position() { return std::atof(ctl({"position"}).c_str()); }
    // A call with dbus-send's typed arguments ("string:x", "int64:5").
    fixtures::ProcessResult send(const std::string& member, std::vector<std::string> args = {}) {
        args.insert(args.begin(), {"dbus-send", "--session", "--print-reply",
                                   std::string("--dest=") + kName, kPath, member});
        return fixtures::runProcess(args);
    }
    fixtures::ProcessResult call(const std::string& method, std::vector<std::string> args = {}) {
        return send(std::string(kPlayer) + "." + method, std::move(args));
    }
    fixtures::ProcessResult set(const std::string& property, const std::string& value) {
        return send("org.freedesktop.DBus.Properties.Set",
                    {std::string("string:") + kPlayer, "string:" + property, "variant:" + value});
    }
    bool waitMeta(const std::string& key, const std::string& value) {
        return waitUntil([&] { return meta(key) == value; }, 10s);
    }
    bool waitStatus(const std::string& status) {
        return waitUntil([&] { return ctl({"status"}) == status; }, 10s);
    }
};

struct Library {
    fs::path music, uno, dos, tres;
};

// Alfa's album of two tracks with different embedded covers; Beta's track without album
// or cover; Gamma's track. Five seconds each.
Library makeLibrary(const fs::path& dir) {
    Library l;
    l.music = dir / "music";
    auto put = [&](const std::string& path, std::map<std::string, std::vector<std::string>> tags,
                   std::vector<fixtures::Cover> covers = {}) {
        fixtures::Tone t{.seconds = 5, .tags = std::move(tags), .covers = std::move(covers)};
        t.frequency = 262 + 30 * static_cast<double>(path.size());
        fs::create_directories((l.music / path).parent_path());
        return fixtures::copyTo(fixtures::cached("mpris-" + path.substr(path.find('/') + 1), t),
                                (l.music / path).parent_path());
    };
    std::map<std::string, std::vector<std::string>> alfa = {
        {"ARTIST", {"Alfa"}}, {"ALBUMARTIST", {"Alfa Trío"}}, {"ALBUM", {"Primero"}},
        {"TITLE", {"Uno"}},   {"TRACKNUMBER", {"1"}},         {"DISCNUMBER", {"2"}}};
    l.uno = put("alfa/uno.flac", alfa, {{}});
    alfa["TITLE"] = {"Dos"};
    alfa["TRACKNUMBER"] = {"2"};
    fixtures::Cover blue;
    std::tie(blue.kind, blue.color) = std::pair(fixtures::ImageKind::png, "blue");
    l.dos = put("alfa/dos.flac", alfa, {blue});
    l.tres = put("beta/tres.flac", {{"ARTIST", {"Beta"}}, {"TITLE", {"Tres"}}});
    put("gamma/cuatro.flac", {{"ARTIST", {"Gamma"}}, {"ALBUM", {"X"}}, {"TITLE", {"Cuatro"}}});
    return l;
}

std::string fileUrl(const fs::path& p) {
    return "file://" + p.string(); // the generated paths need no escaping
}

// The file an artUrl names, checked to hold `expected`.
void expectArt(const std::string& url, const std::vector<uint8_t>& expected) {
    ASSERT_EQ(url.rfind("file://", 0), 0u) << url;
    const fs::path file = url.substr(7);
    EXPECT_TRUE(fs::is_regular_file(file)) << file;
    EXPECT_EQ(slurp(file), std::string(expected.begin(), expected.end())) << file;
}

} // namespace

TEST(Mpris, PublishesPlaybackFollowsTheDesktopsCommandsAndRefusesBadOnes) {
    REQUIRE_BUS_TOOLS();
    fixtures::SessionBus bus;
    Clients c(bus.address());
    Session s;
    s.busAddress = bus.address();
    const Library lib = makeLibrary(s.dir());
    s.start({lib.music.string()});
    ASSERT_TRUE(s.waitFor("4 canciones")) << s.screen();
    ASSERT_TRUE(c.waitStatus("Stopped"));

    // Alfa's album from its first track, with the keys.
    s.keys("Enter Enter");
    ASSERT_TRUE(c.waitMeta("xesam:title", "Uno")) << s.screen();
    EXPECT_EQ(c.ctl({"status"}), "Playing");
    EXPECT_EQ(c.meta("xesam:artist"), "Alfa");
    EXPECT_EQ(c.meta("xesam:album"), "Primero");
    EXPECT_EQ(c.meta("xesam:albumArtist"), "Alfa Trío");
    EXPECT_EQ(c.meta("xesam:trackNumber"), "1");
    EXPECT_EQ(c.meta("xesam:discNumber"), "2");
    EXPECT_EQ(c.meta("xesam:url"), fileUrl(lib.uno));
    EXPECT_NEAR(std::atof(c.meta("mpris:length").c_str()), 5e6, 1e5);
    const std::string unoId = c.trackId();
    ASSERT_TRUE(waitUntil([&] { return !c.meta("mpris:artUrl").empty(); }, 10s));
    const std::string unoArt = c.meta("mpris:artUrl");
    expectArt(unoArt, fixtures::storedPictures(lib.uno).at(0).data);

    c.ctl({"play-pause"});
    ASSERT_TRUE(c.waitStatus("Paused"));
    EXPECT_TRUE(s.waitFor("     ▶     ")) << s.line(38);
    c.ctl({"play-pause"});
    ASSERT_TRUE(c.waitStatus("Playing"));

    // Next: another track, another cover file; the old one is gone.
    c.ctl({"next"});
    ASSERT_TRUE(c.waitMeta("xesam:title", "Dos"));
    EXPECT_NE(c.trackId(), unoId);
    ASSERT_TRUE(waitUntil([&] { return !c.meta("mpris:artUrl").empty(); }, 10s));
    expectArt(c.meta("mpris:artUrl"), fixtures::storedPictures(lib.dos).at(0).data);
    EXPECT_TRUE(waitUntil([&] { return !fs::exists(unoArt.substr(7)); }, 5s));
    c.ctl({"previous"}); // within three seconds: the previous track
    ASSERT_TRUE(c.waitMeta("xesam:title", "Uno"));
    EXPECT_EQ(c.trackId(), unoId);

    // Seeks from the bus: absolute, relative, by track id.
    c.ctl({"pause"});
    ASSERT_TRUE(c.waitStatus("Paused"));
    c.ctl({"position", "3"});
    EXPECT_TRUE(waitUntil([&] { return std::fabs(c.position() - 3) < 0.05; }, 5s));
    c.ctl({"position", "1-"});
    EXPECT_TRUE(waitUntil([&] { return std::fabs(c.position() - 2) < 0.05; }, 5s));
    EXPECT_EQ(c.call("SetPosition", {"objpath:" + unoId, "int64:4000000"}).status, 0);
    EXPECT_TRUE(waitUntil([&] { return std::fabs(c.position() - 4) < 0.05; }, 5s));

    // A track with no album and no cover, opened from outside as a queue of one; played
    // to its end it stays loaded, paused at the end.
    c.ctl({"open", fileUrl(lib.tres)});
    ASSERT_TRUE(c.waitMeta("xesam:title", "Tres"));
    EXPECT_EQ(c.meta("xesam:album"), "Álbum desconocido");
    c.ctl({"position", "4.8"});
    ASSERT_TRUE(c.waitStatus("Paused")) << c.ctl({"status"});
    EXPECT_EQ(c.meta("xesam:title"), "Tres");
    EXPECT_EQ(c.meta("mpris:artUrl"), "");

    // Bad values: an error reply naming the fault, or clamped to the track. (Wrong types
    // never reach us: the bus library refuses them.)
    auto invalid = [](const fixtures::ProcessResult& r) {
        return r.status != 0 && r.errors.find("org.freedesktop.DBus.Error.InvalidArgs") != npos;
    };
    EXPECT_TRUE(invalid(c.set("Volume", "double:nan")));
    EXPECT_EQ(c.call("Seek", {"int64:-9223372036854775808"}).status, 0);
    EXPECT_LT(c.position(), 0.05);
    EXPECT_TRUE(invalid(c.call("OpenUri", {"string:http://example.com/a.flac"})));
    EXPECT_EQ(c.meta("xesam:title"), "Tres");

    // A second Trovan finds the name taken: it runs as usual without it.
    Session other;
    other.busAddress = bus.address();
    other.start();
    ASSERT_TRUE(other.waitForSession());
    other.quit();
    EXPECT_EQ(c.meta("xesam:title"), "Tres");
    EXPECT_EQ(c.send("org.mpris.MediaPlayer2.Quit").status, 0);
    s.expectCleanExit();
}

TEST(Mpris, ABusThatNeverAnswersDoesNotHoldTheProgramUp) {
    REQUIRE_BUS_TOOLS();
    Session s;
    // A listening socket that never accepts: connecting works, nothing ever answers.
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const fs::path path = s.dir() / "silent-bus";
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(silent, 16), 0);
    s.busAddress = "unix:path=" + path.string();
    s.start();
    ASSERT_TRUE(s.waitForSession()) << s.screen();
    s.quit();
    close(silent);
}
