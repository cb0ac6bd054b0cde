#pragma once
// What giflib reads back from a GIF: its size, each frame's delay (hundredths) and
// rectangle, and the NETSCAPE loop count.

#include "testkit/testkit.h"

#include <gif_lib.h>
#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

namespace plim::testkit {

struct DecodedGif {
    int width = 0, height = 0;
    std::vector<int> delays;
    std::vector<std::pair<int, int>> frameSizes;
    int loopCount = -1; // -1: no NETSCAPE extension
};

inline DecodedGif decodeGif(const fs::path& path)
{
    DecodedGif out;
    int error = 0;
    GifFileType* gif = DGifOpenFileName(path.c_str(), &error);
    if (!gif || DGifSlurp(gif) != GIF_OK) {
        ADD_FAILURE() << "giflib cannot read " << path;
        if (gif)
            DGifCloseFile(gif, &error);
        return out;
    }
    out.width = gif->SWidth;
    out.height = gif->SHeight;
    for (int i = 0; i < gif->ImageCount; ++i) {
        GraphicsControlBlock gcb{};
        DGifSavedExtensionToGCB(gif, i, &gcb);
        out.delays.push_back(gcb.DelayTime);
        out.frameSizes.emplace_back(gif->SavedImages[i].ImageDesc.Width, gif->SavedImages[i].ImageDesc.Height);
        const SavedImage& image = gif->SavedImages[i];
        for (int e = 0; e + 1 < image.ExtensionBlockCount; ++e)
            if (image.ExtensionBlocks[e].Function == APPLICATION_EXT_FUNC_CODE && image.ExtensionBlocks[e].ByteCount == 11
                && std::memcmp(image.ExtensionBlocks[e].Bytes, "NETSCAPE2.0", 11) == 0)
                out.loopCount = image.ExtensionBlocks[e + 1].Bytes[1] | (image.ExtensionBlocks[e + 1].Bytes[2] << 8);
    }
    DGifCloseFile(gif, &error);
    return out;
}

} // namespace plim::testkit
