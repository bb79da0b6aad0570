// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Inside the codec module: the FFmpeg implementations behind the Codecs interface.

#include "media/Codecs.h"

namespace trovan::ffmpeg {

// FFmpeg's log would land in the middle of the full-screen session; called on every
// entry into the module.
void silence();

DecoderOpening openDecoder(const std::string& path);
std::optional<AudioFileProbe> probe(const std::string& path);
bool isImage(std::span<const std::uint8_t> bytes);
std::optional<RgbImage> decodeToFill(std::span<const std::uint8_t> bytes, int width, int height);
std::optional<std::vector<std::uint8_t>> embeddedPicture(const std::string& path);

} // namespace trovan::ffmpeg
