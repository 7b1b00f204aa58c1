// tolimage - look at what the TolImage library makes of image files.
//
//   tolimage info FILE...       format, size, depth, colours, resolution
//   tolimage convert FILE OUT   a 1-bit image as PBM, any other as PPM
//   tolimage convert FILE OUT --all
//                               every image of a multi-image (RAS) file, to
//                               OUT with the image number before the extension
//   tolimage raster FILE OUT    the raster the engine is handed, as PBM
//   tolimage show FILE          that raster drawn in the terminal
//
// Exit status: 0 when every file loaded, 1 when one did not, 2 on bad usage.
// The library's reports go to standard error.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/image_file.h"
#include "cli/walk.h"
#include "cli/raster.h"
#include "tolimage_posix.h"

namespace {

int Usage() {
    fprintf(stderr,
            "usage: tolimage info FILE...\n"
            "       tolimage convert FILE OUT [--all]\n"
            "       tolimage raster FILE OUT.pbm\n"
            "       tolimage show FILE\n");
    return 2;
}

int Info(int count, char **files) {
    int status = 0;
    for (int i = 0; i < count; ++i) {
        std::string path = files[i];
        TL_HANDLE block = cli::LoadImage(path, 0, &path);
        cli::Bitmap bitmap;
        if (!block || !cli::CopyBitmap(block, bitmap)) {
            if (block) GlobalFree(block);
            printf("%s: %s, not loaded\n", path.c_str(), cli::FormatOf(path).c_str());
            status = 1;
            continue;
        }
        GlobalFree(block);
        int32_t rows = bitmap.height < 0 ? -bitmap.height : bitmap.height;
        std::string format = cli::FormatOf(path);
        printf("%s: %s, %d x %d, %u bpp, %u colours, %d x %d pixels/m", path.c_str(), format.c_str(), bitmap.width,
               rows, unsigned(bitmap.bits), unsigned(bitmap.colours), bitmap.xPelsPerMeter, bitmap.yPelsPerMeter);
        if (format == "RAS") {
            // A RAS file may hold several images; the size above is image 0's.
            int32_t images = cli::CountImages(path.c_str());
            if (images < 0) status = 1;
            if (images < 0) images = 0;
            printf(", %d image%s", images, images == 1 ? "" : "s");
        }
        printf("\n");
    }
    return status;
}

int Convert(const std::string &path, const std::string &out) {
    TL_HANDLE block = cli::LoadImage(path, 0);
    if (!block) return 1;
    cli::Bitmap bitmap;
    bool copied = cli::CopyBitmap(block, bitmap);
    GlobalFree(block);
    if (!copied || bitmap.compression != 0) {
        fprintf(stderr, "tolimage: %s: pixel data this tool cannot show\n", path.c_str());
        return 1;
    }
    if (!cli::WriteBitmap(bitmap, out)) {
        fprintf(stderr, "tolimage: cannot write %s\n", out.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) return Usage();
    cli::ReportToStderr();
    if (strcmp(argv[1], "info") == 0) return Info(argc - 2, argv + 2);
    if (strcmp(argv[1], "convert") == 0 && argc == 4) return Convert(argv[2], argv[3]);
    if (strcmp(argv[1], "convert") == 0 && argc == 5 && strcmp(argv[4], "--all") == 0)
        return cli::ConvertAll(argv[2], argv[3]);
    if (strcmp(argv[1], "raster") == 0 && argc == 4) return RasterCommand(argv[2], argv[3]);
    if (strcmp(argv[1], "show") == 0 && argc == 3) return ShowCommand(argv[2]);
    return Usage();
}
