// tolimage - look at what the TolImage library makes of image files.
//
//   tolimage info FILE...       format, size, depth, colours, resolution
//   tolimage convert FILE OUT   OUT.png as PNG; OUT.pbm/.ppm/.pnm: a 1-bit image as
//                               PBM, any other as PPM
//   tolimage convert FILE OUT --all
//                               every image of a multi-image (RAS) file, to
//                               OUT with the image number before the extension
//   tolimage raster FILE OUT    the raster the engine is handed, as PBM or PNG
//   tolimage show FILE          that raster drawn in the terminal
//   tolimage help [COMMAND], --help, --version
//
// Exit status: 0 when every file loaded, 1 when one did not, 2 on bad usage.
// The library's reports go to standard error.
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "cli/image_file.h"
#include "cli/walk.h"
#include "cli/raster.h"
#include "tolimage_posix.h"

namespace {

// One entry per command: its name, its arguments and what it does.
struct Command {
    const char *name;
    const char *usage;
    const char *help;
};

constexpr Command Commands[] = {
    {"info", "info FILE...",
     "Prints each file's format, size, bits per pixel, colours and resolution;\n"
     "for a RAS file also how many images it holds.\n"},
    {"convert", "convert FILE OUT [--all]",
     "Writes the image as PNG when OUT ends in .png: a 1-bit image as 1-bit grey\n"
     "(dark pixels black), 4 and 8 bits with their palette, the resolution kept.\n"
     "Otherwise (.pbm, .ppm, .pnm or no extension) as PBM (a 1-bit image, dark pixels\n"
     "set) or PPM (any other).\n"
     "With --all, every image of a multi-image RAS file, to OUT with -0, -1, ...\n"
     "before the extension.\n"},
    {"raster", "raster FILE OUT",
     "Writes the 1-bit raster that the recognition engine is handed, as PNG\n"
     "when OUT ends in .png (dark pixels black), otherwise as PBM.\n"},
    {"show", "show FILE",
     "Draws that raster in the terminal, scaled to its width.\n"},
    {"help", "help [COMMAND]",
     "Describes the commands, or one of them.\n"},
};

constexpr const char *Trailer =
    "\nA named file that does not exist brings up the file selection dialog: in a\n"
    "terminal the tool asks for a path (an empty line cancels); with no terminal\n"
    "it gives up at once.  The library's reports go to standard error.\n"
    "Exit status: 0 when every file loaded, 1 when one did not, 2 on bad usage.\n";

void PrintUsage() {
    for (size_t i = 0; i < std::size(Commands); ++i)
        printf("%s tolimage %s\n", i == 0 ? "usage:" : "      ", Commands[i].usage);
    printf("       tolimage --help | --version\n");
}

// Bad usage: one line on standard error, status 2.  A known command shows
// its own usage; anything else points to --help.
int Usage(const char *command) {
    for (const Command &c : Commands)
        if (command && strcmp(command, c.name) == 0) {
            fprintf(stderr, "usage: tolimage %s\n", c.usage);
            return 2;
        }
    if (command)
        fprintf(stderr, "tolimage: no such command: %s (tolimage --help lists them)\n", command);
    else
        fprintf(stderr, "usage: tolimage COMMAND ARGUMENTS... (tolimage --help lists the commands)\n");
    return 2;
}

int Help(const char *command) {
    if (!command) {
        printf("tolimage - look at what the TolImage library makes of image files\n\n");
        PrintUsage();
        printf("\n");
        for (const Command &c : Commands) printf("  %-26s %.*s\n", c.usage, int(strcspn(c.help, "\n")), c.help);
        printf("%s", Trailer);
        return 0;
    }
    for (const Command &c : Commands)
        if (strcmp(command, c.name) == 0) {
            printf("usage: tolimage %s\n\n%s", c.usage, c.help);
            return 0;
        }
    return Usage(command);
}

int Version() {
    printf("tolimage %s (TolImage library %s, engine version %s)\n", TOLIMAGE_VERSION_STRING,
           TOLIMAGE_VERSION_STRING, TL_TOLMAR_VERSION);
    return 0;
}

int Info(int count, char **files) {
    int status = 0;
    for (int i = 0; i < count; ++i) {
        std::string path = files[i];
        TL_HANDLE block = cli::LoadImageFile(path, 0, &path);
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
    TL_HANDLE block = cli::LoadImageFile(path, 0);
    if (!block) return 1;
    cli::Bitmap bitmap;
    bool copied = cli::CopyBitmap(block, bitmap);
    GlobalFree(block);
    if (!copied || !cli::CanWrite(bitmap)) {
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
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) return Help(nullptr);
    if (argc == 2 && strcmp(argv[1], "--version") == 0) return Version();
    if (argc >= 2 && argc <= 3 && strcmp(argv[1], "help") == 0) return Help(argc == 3 ? argv[2] : nullptr);
    if (argc < 3) return Usage(argc == 2 ? argv[1] : nullptr);
    cli::ReportToStderr();
    const bool writes = strcmp(argv[1], "convert") == 0 || strcmp(argv[1], "raster") == 0;
    if (writes && argc >= 4 && !cli::UsableOutput(argv[3])) return 2;
    if (strcmp(argv[1], "info") == 0) return Info(argc - 2, argv + 2);
    if (strcmp(argv[1], "convert") == 0 && argc == 4) return Convert(argv[2], argv[3]);
    if (strcmp(argv[1], "convert") == 0 && argc == 5 && strcmp(argv[4], "--all") == 0)
        return cli::ConvertAll(argv[2], argv[3]);
    if (strcmp(argv[1], "raster") == 0 && argc == 4) return RasterCommand(argv[2], argv[3]);
    if (strcmp(argv[1], "show") == 0 && argc == 3) return ShowCommand(argv[2]);
    return Usage(argv[1]);
}
