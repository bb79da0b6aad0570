// SPDX-License-Identifier: GPL-3.0-or-later
// Loudness measured on the program's own decoding against FFmpeg's ebur128 filter on the
// same files, and the ReplayGain tags written from it read back by ffprobe.

#include "tags/LoudnessAnalysis.h"
#include "library/ReplayGain.h"
#include "support/Fixtures.h"
#include "tags/TagEditor.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

using namespace trovan;
namespace fx = trovan::fixtures;

namespace {

// FFmpeg's integrated loudness of the files played one after the other.
double ffmpegLufs(const std::vector<std::filesystem::path>& files) {
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-hide_banner", "-nostats"};
    std::string graph;
    for (std::size_t i = 0; i < files.size(); ++i) {
        argv.insert(argv.end(), {"-i", files[i].string()});
        // Appended: "[" + std::string trips GCC 12's -Wrestrict in Release.
        graph.append("[").append(std::to_string(i)).append(":a]");
    }
    graph += "concat=n=" + std::to_string(files.size()) +
             ":v=0:a=1,ebur128=metadata=1,ametadata=mode=print:key=lavfi.r128.I";
    argv.insert(argv.end(), {"-filter_complex", graph, "-f", "null", "-"});
    const auto r = fx::runProcess(argv);
    const auto at = r.errors.rfind("lavfi.r128.I=");
    if (at == std::string::npos) return 1000;
    return std::stod(r.errors.substr(at + 13));
}

std::map<std::string, std::string> probedTags(const std::filesystem::path& file) {
    auto r = fx::runProcess({"ffprobe", "-v", "error", "-show_entries", "format_tags", "-of",
                             "default=nw=1", file.string()});
    std::map<std::string, std::string> tags;
    std::istringstream lines(r.output);
    for (std::string line; std::getline(lines, line);)
        if (auto eq = line.find('='); line.rfind("TAG:", 0) == 0 && eq != std::string::npos)
            tags[line.substr(4, eq - 4)] = line.substr(eq + 1);
    return tags;
}

} // namespace

TEST(LoudnessAnalysis, AgreesWithFFmpegAndWritesReplayGainTwoTags) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const auto sine = dir / "sine.flac", pink = dir / "pink.flac", shortTone = dir / "short.flac",
               silence = dir / "silence.flac";
    fx::ffmpeg("aevalsrc=0.1*sin(2*PI*1000*t)|0.1*sin(2*PI*1000*t):s=44100:d=6", "", sine);
    fx::ffmpeg("anoisesrc=color=pink:amplitude=0.0316:d=6:r=44100:seed=7", "-ac 2", pink);
    fx::ffmpeg("aevalsrc=0.5*sin(2*PI*440*t):s=44100:d=0.3", "", shortTone);
    fx::ffmpeg("anullsrc=r=44100:cl=stereo", "-t 2", silence);

    std::vector<LoudnessAnalysis::Track> tracks;
    for (const auto& f : {sine, pink}) {
        tracks.push_back(LoudnessAnalysis::measure(f.string()));
        ASSERT_TRUE(tracks.back().ok) << tracks.back().error;
        EXPECT_NEAR(tracks.back().lufs, ffmpegLufs({f}), 0.1) << f;
    }
    EXPECT_NEAR(tracks[0].peak, 0.1, 0.002); // a sine's true peak is its amplitude
    const auto album = LoudnessAnalysis::album(
        {&tracks[0], &tracks[1]}, LoudnessAnalysis::measureJoined({sine.string(), pink.string()}));
    ASSERT_TRUE(album.lufs);
    EXPECT_NEAR(*album.lufs, ffmpegLufs({sine, pink}), 0.1);
    EXPECT_DOUBLE_EQ(album.peak, std::max(tracks[0].peak, tracks[1].peak));

    // Too short to measure, or silent: no loudness, nothing to write.
    for (const auto& f : {shortTone, silence}) {
        auto t = LoudnessAnalysis::measure(f.string());
        EXPECT_TRUE(t.ok && t.silent) << f;
        EXPECT_FALSE(LoudnessAnalysis::patch(t, album)) << f;
    }
    EXPECT_FALSE(LoudnessAnalysis::measure((dir / "missing.flac").string()).ok);

    TagEditor editor(nullptr);
    for (const auto& t : tracks) {
        auto patch = LoudnessAnalysis::patch(t, album);
        ASSERT_TRUE(patch);
        ASSERT_TRUE(editor.apply(*patch, {t.path}).failed.empty());
        auto tags = probedTags(t.path);
        EXPECT_EQ(tags["REPLAYGAIN_TRACK_GAIN"], ReplayGain::formatGain(-18 - t.lufs));
        EXPECT_EQ(tags["REPLAYGAIN_ALBUM_GAIN"], ReplayGain::formatGain(-18 - *album.lufs));
        EXPECT_NEAR(std::stod(tags["REPLAYGAIN_TRACK_PEAK"]), t.peak, 1e-6);
        EXPECT_NEAR(std::stod(tags["REPLAYGAIN_ALBUM_PEAK"]), album.peak, 1e-6);
    }
    EXPECT_NEAR(std::stod(probedTags(sine)["REPLAYGAIN_TRACK_GAIN"]), -18 - ffmpegLufs({sine}),
                0.1);
    EXPECT_FALSE(LoudnessAnalysis::measureJoined({shortTone.string(), silence.string()}));
}
