// SPDX-License-Identifier: GPL-3.0-or-later
// What the next start does with what a dead run left: only files the journal names, that
// are still the very files it names, are restored or removed. Look-alikes, links and a
// damaged journal are reported or ignored, and nothing outside is touched.

#include "tags/WriteJournal.h"
#include "TagFiles.h"
#include "tags/TagEditor.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace fx = trovan::fixtures;
using namespace trovan;
using fixtures::slurp;

namespace {

// Runs `body` in a child that then dies without cleaning up.
template <typename F> void inDeadProcess(F body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
}

// A dead run that had backed up `target` into `backup` (a copy of it) and then began to
// rewrite it in place: `target` ends up cut in half.
void deadRewrite(const fs::path& journalFile, const fs::path& target, const fs::path& backup) {
    inDeadProcess([&] {
        WriteJournal journal(journalFile);
        auto entry = journal.intend(backup.string());
        fs::copy_file(target, backup);
        struct stat b {
        }, t{};
        ::stat(backup.c_str(), &b);
        ::stat(target.c_str(), &t);
        journal.identify(*entry, b.st_dev, b.st_ino);
        journal.backs(*entry, target.string(), t.st_dev, t.st_ino, t.st_size);
        // A working file it meant to make and never did.
        journal.intend((target.parent_path() / ".trovan-tmp-nunca").string());
    });
    fs::resize_file(target, fs::file_size(target) / 2);
}

} // namespace

TEST(WriteJournal, LookAlikesAndLinksAreNeverTrusted) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path music = dir.subdir("musica");
    const fs::path outside = dir.subdir("fuera") / "secreto.flac";
    tagfiles::copyOf(fx::Format::flac, outside.parent_path(), "secreto");
    const fs::path song = tagfiles::copyOf(fx::Format::flac, music, "01");
    const fs::path other = tagfiles::copyOf(fx::Format::mp3, music, "02");
    const std::string songBytes = slurp(song), outsideBytes = slurp(outside);
    const fs::path journalFile = dir / "datos" / "escrituras.diario";

    // A folder that arrives with files named like ours, from a process long gone.
    const fs::path forgedBackup = music / ".trovan-bak-99999999999999999999-01.flac";
    std::ofstream(forgedBackup) << "no es una copia";
    const fs::path forgedTemp = music / ".trovan-tmp-1-0123456789abcdef.flac";
    fs::create_symlink(outside, forgedTemp);
    // A real backup, replaced by a link to a file outside after its run died.
    const fs::path realBackup = music / ".trovan-bak-2-01.flac";
    deadRewrite(journalFile, other, realBackup);
    const std::string tornOther = slurp(other);
    fs::remove(realBackup);
    fs::create_symlink(outside, realBackup);

    auto journal = std::make_shared<WriteJournal>(journalFile);
    auto recovery = journal->recover();
    TagEditor editor(nullptr, journal);
    TagPatch patch;
    patch.changes["TITLE"] = {"Otro"};
    EXPECT_TRUE(editor.apply(patch, {song.string()}).failed.empty());

    EXPECT_EQ(slurp(outside), outsideBytes);
    EXPECT_EQ(slurp(forgedBackup), "no es una copia");
    EXPECT_TRUE(fs::is_symlink(forgedTemp));
    EXPECT_TRUE(fs::is_symlink(realBackup));
    EXPECT_EQ(slurp(other), tornOther) << "restored from something that was not its backup";
    EXPECT_NE(slurp(song), songBytes);
    EXPECT_EQ(recovery.restored, 0);
    ASSERT_EQ(recovery.messages.size(), 1u);
    EXPECT_NE(recovery.messages[0].find("Falta la copia de seguridad de 02.mp3"), std::string::npos)
        << recovery.messages[0];
    EXPECT_EQ(journal->openEntries(), 0u);
}

TEST(WriteJournal, DamagedJournalIsReportedAndItsGoodRecordsStillRestore) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path music = dir.subdir("musica");
    const fs::path song = tagfiles::copyOf(fx::Format::flac, music, "01");
    const std::string good = slurp(song);
    const fs::path journalFile = dir / "datos" / "escrituras.diario";
    deadRewrite(journalFile, song, music / ".trovan-bak-x");
    ASSERT_NE(slurp(song), good);

    // A line spoilt in the middle, one that does not add up, and a last one cut short.
    std::string text = slurp(journalFile);
    std::string spoilt = text.substr(0, text.find('\n') + 1);
    spoilt[2] ^= 1;
    text = "basura sin sentido\n" + spoilt + text + "D\t123-4";
    std::ofstream(journalFile, std::ios::binary | std::ios::trunc) << text;

    auto recovery = WriteJournal(journalFile).recover();
    EXPECT_EQ(slurp(song), good);
    EXPECT_EQ(recovery.restored, 1);
    ASSERT_EQ(recovery.messages.size(), 1u);
    EXPECT_NE(recovery.messages[0].find("3 línea(s) ilegible(s) (la primera, la 1)"),
              std::string::npos)
        << recovery.messages[0];
    EXPECT_EQ(slurp(journalFile.string() + ".dañado"), text);
    EXPECT_EQ(WriteJournal(journalFile).openEntries(), 0u);
    EXPECT_TRUE(tagfiles::workFiles(music).empty());
}
