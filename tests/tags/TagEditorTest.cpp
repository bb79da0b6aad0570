// Tag and picture writes on real files of every writable format, and the ways a write
// may not happen: each must leave the file exactly as it was.

#include "tags/TagEditor.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace fx = trovan::fixtures;
using namespace trovan;

namespace {

std::string bytesOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> workFiles(const fs::path& dir) {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(dir))
        if (SafeWrite::isWorkFileName(e.path().filename().string()))
            out.push_back(e.path().filename().string());
    return out;
}

PropertyMap propertiesOf(const fs::path& file) {
    return TagEditor::properties({file.string()}).front();
}

fx::Tone tagged(fx::Format format) {
    fx::Tone tone;
    tone.format = format;
    tone.seconds = 0.5;
    tone.tags = {{"TITLE", {"Viejo"}},
                 {"ARTIST", {"Alguien"}},
                 {"COMMENT", {"borrar"}},
                 {"LYRICS", {"la la"}}};
    fx::Cover second;
    second.kind = fx::ImageKind::png;
    second.color = "blue";
    tone.covers = {fx::Cover{}, second};
    return tone;
}

fs::path copyOf(fx::Format format, const fs::path& dir, const std::string& name) {
    const std::string ext = fx::extension(format);
    auto cached = fx::cached("editor-" + fx::name(format) + "." + ext, tagged(format));
    return fx::copyTo(cached, dir, name + "." + ext);
}

// An immutable file: even root cannot replace or change it.
class Unwritable {
public:
    explicit Unwritable(fs::path file) : file_(std::move(file)) {
        if (::geteuid() == 0)
            immutable_ = fx::runProcess({"chattr", "+i", file_.string()}).status == 0;
        else
            fs::permissions(file_, fs::perms::owner_read);
    }
    ~Unwritable() {
        if (immutable_) fx::runProcess({"chattr", "-i", file_.string()});
    }
    bool ok() const { return ::geteuid() != 0 || immutable_; }

private:
    fs::path file_;
    bool immutable_ = false;
};

} // namespace

TEST(TagEditor, WritesTagsAndPicturesIntoEveryWritableFormat) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    TagEditor editor(nullptr);
    fx::Cover green;
    green.kind = fx::ImageKind::png;
    green.color = "green";
    const auto png = fx::image(green);
    for (auto format : fx::taggableFormats()) {
        SCOPED_TRACE(fx::name(format));
        const fs::path file = copyOf(format, dir.path(), fx::name(format));
        fs::permissions(file,
                        fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
        const bool xattrs = ::setxattr(file.c_str(), "user.trovan", "1", 1, 0) == 0;

        TagPatch patch;
        patch.changes = {
            {"ARTIST", {"Uno", "Dos"}}, {"TITLE", {"Línea 1\nLínea 2"}}, {"MOOD", {"Alegre"}}};
        patch.remove = {"COMMENT"};
        auto result = editor.apply(patch, {file.string()});
        ASSERT_TRUE(result.failed.empty());
        ASSERT_EQ(result.updated.size(), 1u);
        EXPECT_EQ(result.updated[0].title, "Línea 1\nLínea 2");
        struct stat st {};
        ASSERT_EQ(::stat(file.c_str(), &st), 0);
        // The stored stamp is the new file's, so the next scan sees nothing to do.
        EXPECT_EQ(result.updated[0].size, st.st_size);
        EXPECT_DOUBLE_EQ(result.updated[0].mtime, FileStamp::seconds(st.st_mtim));
        EXPECT_EQ(st.st_mode & 0777, 0640u);
        if (xattrs) {
            char value[4] = {};
            EXPECT_EQ(::getxattr(file.c_str(), "user.trovan", value, sizeof value), 1);
        }

        auto props = propertiesOf(file);
        EXPECT_EQ(props["ARTIST"], (std::vector<std::string>{"Uno", "Dos"}));
        EXPECT_EQ(props["TITLE"], std::vector<std::string>{"Línea 1\nLínea 2"});
        EXPECT_EQ(props["MOOD"], std::vector<std::string>{"Alegre"});
        EXPECT_FALSE(props.count("COMMENT"));
        EXPECT_EQ(props["LYRICS"], std::vector<std::string>{"la la"});

        result = editor.setPicture(Picture{png, "image/png"}, {file.string()});
        ASSERT_TRUE(result.failed.empty());
        auto pictures = fx::storedPictures(file);
        ASSERT_EQ(pictures.size(), 1u);
        EXPECT_EQ(pictures[0].data, png);
        EXPECT_TRUE(pictures[0].description.empty());
        if (pictures[0].pictureType != -1) {
            EXPECT_EQ(pictures[0].pictureType, 3);
        }

        result = editor.setPicture(std::nullopt, {file.string()});
        ASSERT_TRUE(result.failed.empty());
        EXPECT_TRUE(fx::storedPictures(file).empty());
        EXPECT_EQ(propertiesOf(file)["ARTIST"], (std::vector<std::string>{"Uno", "Dos"}));
        EXPECT_TRUE(fx::decodes(file));
    }
    EXPECT_TRUE(workFiles(dir.path()).empty());
}

TEST(TagEditor, FilesThatCannotBeWrittenAreCountedAndLeftByteIdentical) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    auto store = std::make_shared<LibraryStore>(dir / "library.sqlite");
    TagEditor editor(store);
    const fs::path music = dir.subdir("music");
    std::vector<std::string> five;
    for (int i = 0; i < 5; ++i)
        five.push_back(
            copyOf(i % 2 ? fx::Format::mp3 : fx::Format::flac, music, "t" + std::to_string(i))
                .string());
    const std::string locked = five[2];
    const std::string before = bytesOf(locked);
    {
        Unwritable guard(locked);
        if (!guard.ok()) GTEST_SKIP() << "chattr is not available";
        TagPatch patch;
        patch.changes["TITLE"] = {"Nuevo"};
        auto result = editor.apply(patch, five);
        EXPECT_EQ(result.failed, std::vector<std::string>{locked});
        EXPECT_EQ(result.updated.size(), 4u);
    }
    EXPECT_EQ(bytesOf(locked), before);
    int stored = 0;
    for (const auto& track : store->loadAll()) {
        EXPECT_NE(track.path, locked);
        EXPECT_EQ(track.title, "Nuevo");
        ++stored;
    }
    EXPECT_EQ(stored, 4);

    // A FLAC picture block holds less than 16 MiB; not an image, a file that vanished.
    const std::string flac = five[0];
    const std::string flacBefore = bytesOf(flac);
    std::vector<std::uint8_t> huge(SafeWrite::flacBlockLimit, 0x55);
    EXPECT_EQ(editor.setPicture(Picture{huge, "image/jpeg"}, {flac}).failed.size(), 1u);
    EXPECT_EQ(bytesOf(flac), flacBefore);
    const auto garbage = fx::writeBroken(music, "roto.flac", fx::Broken::garbage);
    const std::string garbageBefore = bytesOf(garbage);
    TagPatch patch;
    patch.changes["TITLE"] = {"x"};
    auto result = editor.apply(patch, {garbage.string(), (music / "no-existe.mp3").string()});
    EXPECT_EQ(result.failed.size(), 2u);
    EXPECT_EQ(bytesOf(garbage), garbageBefore);
    EXPECT_TRUE(workFiles(music).empty());
}

TEST(TagEditor, HardLinkedFileIsRewrittenInPlaceKeepingItsLinks) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path file = copyOf(fx::Format::mp3, dir.subdir("a"), "enlazado");
    const fs::path other = dir.subdir("b") / "otro.mp3";
    fs::create_hard_link(file, other);
    struct stat before {};
    ::stat(file.c_str(), &before);
    TagEditor editor(nullptr);
    TagPatch patch;
    patch.changes["TITLE"] = {"Compartido"};
    ASSERT_TRUE(editor.apply(patch, {file.string()}).failed.empty());
    struct stat after {};
    ::stat(file.c_str(), &after);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_nlink, 2u);
    EXPECT_EQ(propertiesOf(other)["TITLE"], std::vector<std::string>{"Compartido"});
    EXPECT_TRUE(workFiles(file.parent_path()).empty());
    EXPECT_TRUE(fx::decodes(other));
}

TEST(TagEditor, LeftoversOfADeadRunAreCleanedAndABackupRestoresItsOriginal) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path song = copyOf(fx::Format::flac, dir.path(), "cancion");
    const fs::path next = copyOf(fx::Format::flac, dir.path(), "siguiente");
    const std::string good = bytesOf(song);
    // A process that is gone for sure: a child that has exited and been waited for.
    pid_t dead = ::fork();
    if (dead == 0) ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    const std::string pid = std::to_string(dead);
    // It died copying one file, and in the middle of rewriting a hard-linked one in place.
    std::ofstream(dir / (".trovan-tmp-" + pid + "-0123456789abcdef.flac")) << "medio archivo";
    fs::copy_file(song, dir / (".trovan-bak-" + pid + "-cancion.flac"));
    fs::resize_file(song, good.size() / 2);
    // Ours, but of another process that is still running: left alone.
    const fs::path alive = dir / (".trovan-tmp-1-fedcba9876543210.flac");
    std::ofstream(alive) << "en uso";

    TagEditor editor(nullptr);
    TagPatch patch;
    patch.changes["TITLE"] = {"Otra"};
    ASSERT_TRUE(editor.apply(patch, {next.string()}).failed.empty());
    EXPECT_EQ(bytesOf(song), good);
    EXPECT_EQ(workFiles(dir.path()), std::vector<std::string>{alive.filename().string()});
}

TEST(TagEditor, NearlyFullFileSystemRefusesTheWriteAndKeepsTheOriginal) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path mount = dir.subdir("lleno");
    if (::mount("tmpfs", mount.c_str(), "tmpfs", 0, "size=6m") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here (needs root)";
    struct Unmount {
        fs::path path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{mount};
    fx::Tone tone = tagged(fx::Format::wav);
    tone.seconds = 3; // about half a megabyte
    const fs::path file = fx::write(mount, "casi.wav", tone);
    // Fill the rest but for less than the copy and its margin need.
    {
        std::ofstream filler(mount / "relleno", std::ios::binary);
        std::string block(64 * 1024, 'x');
        for (int i = 0; i < 40; ++i)
            filler << block;
    }
    const std::string before = bytesOf(file);
    TagEditor editor(nullptr);
    TagPatch patch;
    patch.changes["TITLE"] = {"No cabe"};
    EXPECT_EQ(editor.apply(patch, {file.string()}).failed.size(), 1u);
    EXPECT_EQ(bytesOf(file), before);
    EXPECT_TRUE(workFiles(mount).empty());
}

TEST(TagEditor, HostileValuesLeaveEachFileWrittenAndDecodableOrUntouched) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    TagEditor editor(nullptr);
    const std::string nul("a\0b", 3);
    const std::vector<TagPatch> patches = {
        {{{"TITLE", {nul}}}, {}},
        {{{"TITLE", {"\xff\xfe\xc3"}}, {"COMMENT", {"x\r\ny"}}}, {}},
        {{{"COMMENT", {std::string(17u << 20, 'v')}}}, {}},
    };
    for (auto format : {fx::Format::flac, fx::Format::mp3, fx::Format::aac, fx::Format::vorbis}) {
        for (std::size_t i = 0; i < patches.size(); ++i) {
            SCOPED_TRACE(fx::name(format) + " patch " + std::to_string(i));
            const fs::path file = copyOf(format, dir.path(), fx::name(format) + std::to_string(i));
            const std::string before = bytesOf(file);
            auto result = editor.apply(patches[i], {file.string()});
            if (!result.failed.empty()) {
                EXPECT_EQ(bytesOf(file), before);
            } else {
                EXPECT_TRUE(fx::decodes(file));
            }
            // A FLAC comment block cannot hold 17 MiB.
            if (format == fx::Format::flac && i == 2) {
                EXPECT_EQ(result.failed.size(), 1u);
            }
        }
    }
    EXPECT_TRUE(workFiles(dir.path()).empty());
}
