// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/AudioFormatInfo.h"

#include "media/AudioDecoder.h"

#include <cmath>
#include <cstdio>

namespace trovan {

namespace {

std::string lowerExtension(const std::string& path) {
    auto slash = path.find_last_of('/');
    auto name = slash == std::string::npos ? path : path.substr(slash + 1);
    auto dot = name.find_last_of('.');
    if (dot == std::string::npos) return {};
    std::string ext = name.substr(dot + 1);
    for (auto& c : ext)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return ext;
}

std::string upper(std::string s) {
    for (auto& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

std::optional<int> losslessDepth(int bits) {
    if (bits == 16 || bits == 20 || bits == 24 || bits == 32) return bits;
    return std::nullopt;
}

} // namespace

std::string AudioFormatInfo::summary() const {
    std::string out = codec;
    auto append = [&out](const std::string& part) {
        if (!out.empty()) out += " \u00B7 ";
        out += part;
    };
    double khz = sampleRate / 1000.0;
    char buf[64];
    if (std::isfinite(khz) && khz == std::floor(khz))
        std::snprintf(buf, sizeof buf, "%.0f kHz", khz);
    else
        std::snprintf(buf, sizeof buf, "%.1f kHz", khz);
    append(buf);
    if (bitDepth) append(std::to_string(*bitDepth) + " bit");
    return out;
}

AudioFormatInfo AudioFormatInfo::describe(const AudioStreamDescription& stream,
                                          const std::string& path) {
    AudioFormatInfo info;
    info.sampleRate = stream.sampleRate;
    info.channels = stream.channels;
    std::string ext = lowerExtension(path);
    switch (stream.codec) {
    case AudioCodecKind::alac:
    case AudioCodecKind::flac: {
        info.codec = stream.codec == AudioCodecKind::alac ? "ALAC" : "FLAC";
        int bits = stream.bitsPerRawSample > 0            ? stream.bitsPerRawSample
                   : stream.codec == AudioCodecKind::alac ? stream.bitsPerCodedSample
                                                          : 0;
        info.bitDepth = losslessDepth(bits);
        break;
    }
    case AudioCodecKind::pcm:
        info.codec = (ext == "aif" || ext == "aiff" || ext == "aifc") ? "AIFF" : "WAV";
        if (stream.bitsPerRawSample > 0)
            info.bitDepth = stream.bitsPerRawSample;
        else if (stream.bitsPerCodedSample > 0)
            info.bitDepth = stream.bitsPerCodedSample;
        break;
    case AudioCodecKind::aac:
        info.codec = "AAC";
        break;
    case AudioCodecKind::mp3:
        info.codec = "MP3";
        break;
    case AudioCodecKind::other:
        info.codec = upper(ext);
        break;
    }
    return info;
}

} // namespace trovan
