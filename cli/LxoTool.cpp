// orbiscope lxo: the LXO tools on the command line (dump, copy, replace one layer, update
// every mesh layer from a scene). Copy, replace and update write into a temporary file
// beside the destination, opened (never created again) by descriptor, and move it into
// place only when the whole copy succeeded.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <unistd.h>

#include "cli/ExitCodes.h"
#include "cli/Signals.h"
#include "cli/ToolCommands.h"
#include "formats/lxo/LxoCopy.h"
#include "formats/lxo/LxoDump.h"
#include "formats/lxo/LxoSaver.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Object.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XString.h"

namespace {

int Usage() {
    std::fprintf(stderr, "usage: orbiscope lxo dump FILE [-v] [-o OUT]\n"
                         "       orbiscope lxo copy SRC DST\n"
                         "       orbiscope lxo replace SRC DST --layer REFID MESHFILE\n"
                         "       orbiscope lxo update FILE SCENEFILE [-o OUT]\n");
    return EXIT_USAGE;
}

bool Readable(const char* path) {
    FILE* f = LxoOpenFile(path, "rb");
    if (!f) return false;
    std::fclose(f);
    return true;
}

int ReadFailure(const char* what, const char* path, uint32_t r) {
    if (r == LXO_ERR_UNSUPPORTED_TYPE)
        std::fprintf(stderr, "orbiscope: cannot %s '%s': it holds a channel value of an unsupported type.\n", what,
                     path);
    else if (r == LXO_ERR_OUT_OF_MEMORY)
        std::fprintf(stderr, "orbiscope: cannot %s '%s': out of memory.\n", what, path);
    else
        std::fprintf(stderr, "orbiscope: cannot %s '%s': the file is damaged or cut short (LXO result 0x%08x).\n", what,
                     path, r);
    return EXIT_BAD_FORMAT;
}

int Dump(int argc, char** argv) {
    const char* file = nullptr;
    const char* out = nullptr;
    bool verbose = false;
    for (int i = 0; i < argc; ++i) {
        if (!std::strcmp(argv[i], "-v")) verbose = true;
        else if (!std::strcmp(argv[i], "-o") && i + 1 < argc) out = argv[++i];
        else if (!file && argv[i][0] != '-') file = argv[i];
        else return Usage();
    }
    if (!file) return Usage();
    if (!Readable(file)) {
        std::fprintf(stderr, "orbiscope: cannot open '%s': %s.\n", file, std::strerror(errno));
        return EXIT_CANNOT_OPEN;
    }
    LxoDump dump(file, out, verbose);
    if (!dump.HasOutput()) {
        std::fprintf(stderr, "orbiscope: cannot create the dump output '%s'.\n", out ? out : "");
        return EXIT_CANNOT_WRITE;
    }
    const uint32_t r = dump.Read();
    dump.Flush();
    if (r) return ReadFailure("dump", file, r);
    return 0;
}

// The temporary beside `dst`, made now and removed on every path but success.
struct Temporary {
    CXStringW path;
    bool moved = false;
    ~Temporary() {
        if (!moved && !path.IsEmpty()) fileDelete(path);
    }
};

// Where a run writes: the temporary's name, and a descriptor held open on it so that the
// writer reaches the file without creating it (a signal's clean-up that removed the name
// in between is not undone).
struct Destination {
    Temporary tmp;
    int fd = -1;
    ~Destination() {
        if (fd >= 0) ::close(fd);
    }
    std::string Held() const { return "/proc/self/fd/" + std::to_string(fd); }
};

int OpenDestination(const char* dst, Destination& d) {
    const CXStringW dstW(Utf8ToWide(dst));
    CXStringW folder = fileStripName(dstW);
    if (folder.IsEmpty()) folder = L"./";
    // Named after this process (see fileCreateTmpName), so a run killed outright leaves
    // nothing the next run in that folder cannot remove.
    d.tmp.path = fileCreateTmpName(folder, L".orbiscope-lxo-", L".lxo");
    if (!d.tmp.path.IsEmpty()) d.fd = ::open(PathToUtf8(d.tmp.path).c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (d.fd < 0) {
        std::fprintf(stderr, "orbiscope: cannot create '%s': %s.\n", dst, std::strerror(errno));
        return EXIT_CANNOT_WRITE;
    }
    return 0;
}

int Commit(Destination& d, const char* dst) {
    CommitSection commit;
    if (!fileRename(d.tmp.path, CXStringW(Utf8ToWide(dst)))) {
        std::fprintf(stderr, "orbiscope: cannot write '%s': %s.\n", dst, std::strerror(errno));
        return EXIT_CANNOT_WRITE;
    }
    d.tmp.moved = true;
    return 0;
}

int WriteFailure(const char* src, const char* dst, uint32_t r, uint32_t w) {
    if (w && (!r || r == LXO_ERR_WRITE)) {
        std::fprintf(stderr, "orbiscope: cannot write '%s': the disk refused the data.\n", dst);
        return EXIT_CANNOT_WRITE;
    }
    return ReadFailure("read", src, r);
}

// Runs the updater from src into a temporary file beside dst, then moves it into place.
int Update(const char* src, const char* dst, uint32_t layerRef, const LxoLayerMesh* mesh) {
    if (!Readable(src)) {
        std::fprintf(stderr, "orbiscope: cannot open '%s': %s.\n", src, std::strerror(errno));
        return EXIT_CANNOT_OPEN;
    }
    Destination d;
    if (int rc = OpenDestination(dst, d)) return rc;
    uint32_t r = 0, w = 0;
    int replaced = 0;
    {
        LxoUpdater up(src, d.Held().c_str());
        if (!up.Writer()) {
            std::fprintf(stderr, "orbiscope: cannot create '%s': its folder is missing or not writable.\n", dst);
            return EXIT_CANNOT_WRITE;
        }
        if (mesh) up.Replacements().SetAt(layerRef, mesh);
        r = up.Read();
        replaced = up.ReplacedCount();
        w = up.Writer()->Finish();
    }
    if (r || w) return WriteFailure(src, dst, r, w);
    if (mesh && replaced == 0) {
        std::fprintf(stderr, "orbiscope: cannot replace a layer of '%s': it has no mesh layer with reference ID %u.\n",
                     src, layerRef);
        return EXIT_NOTHING_TO_WRITE;
    }
    return Commit(d, dst);
}

std::unique_ptr<C3DScene> ReadMeshScene(const char* meshFile, int& rc) {
    CFileIo io{CXStringW(Utf8ToWide(meshFile))};
    std::unique_ptr<C3DScene> scene = C3DIo::ReadScene(CXStringW(Utf8ToWide(meshFile)), io);
    if (scene) return scene;
    const int e = io.GetIoError();
    const char* why = e == IO_ERR_OPEN     ? "it cannot be opened"
                      : e == IO_ERR_FORMAT ? "it is damaged or not of its format"
                      : e == IO_ERR_EMPTY  ? "it holds nothing"
                                           : "no reader for its format is available";
    std::fprintf(stderr, "orbiscope: cannot read the mesh file '%s': %s.\n", meshFile, why);
    rc = e == IO_ERR_OPEN     ? EXIT_CANNOT_OPEN
         : e == IO_ERR_FORMAT ? EXIT_BAD_FORMAT
         : e == IO_ERR_EMPTY  ? EXIT_EMPTY
                              : EXIT_NOT_AVAILABLE;
    return nullptr;
}

// FILE SCENEFILE [-o OUT]: every mesh layer of FILE replaced by the scene's meshes
// (by item name, else in order), into OUT or FILE itself.
int UpdateLayers(int argc, char** argv) {
    const char* file = nullptr;
    const char* sceneFile = nullptr;
    const char* out = nullptr;
    for (int i = 0; i < argc; ++i) {
        if (!std::strcmp(argv[i], "-o") && i + 1 < argc) out = argv[++i];
        else if (!file) file = argv[i];
        else if (!sceneFile) sceneFile = argv[i];
        else return Usage();
    }
    if (!file || !sceneFile) return Usage();
    if (!out) out = file;
    if (!Readable(file)) {
        std::fprintf(stderr, "orbiscope: cannot open '%s': %s.\n", file, std::strerror(errno));
        return EXIT_CANNOT_OPEN;
    }
    int rc = 0;
    std::unique_ptr<C3DScene> scene = ReadMeshScene(sceneFile, rc);
    if (!scene) return rc;
    Destination d;
    if (int e = OpenDestination(out, d)) return e;
    const LxoUpdateResult r = LxoUpdateFile(file, PathToUtf8(d.tmp.path).c_str(), *scene);
    if (r.read || r.write) return WriteFailure(file, out, r.read, r.write);
    if (r.replaced == 0) {
        std::fprintf(stderr, "orbiscope: cannot update '%s': no mesh of '%s' matches one of its mesh layers.\n", file,
                     sceneFile);
        return EXIT_NOTHING_TO_WRITE;
    }
    if (int e = Commit(d, out)) return e;
    std::printf("%d mesh layer%s replaced.\n", r.replaced, r.replaced == 1 ? "" : "s");
    return 0;
}

int Replace(int argc, char** argv) {
    // SRC DST --layer REFID MESHFILE
    if (argc != 5 || std::strcmp(argv[2], "--layer") != 0) return Usage();
    char* end = nullptr;
    errno = 0;
    const unsigned long ref = std::strtoul(argv[3], &end, 10);
    if (!*argv[3] || *end || errno || ref > UINT32_MAX) return Usage();
    const char* meshFile = argv[4];
    int rc = 0;
    std::unique_ptr<C3DScene> scene = ReadMeshScene(meshFile, rc);
    if (!scene) return rc;
    C3DBaseObject* object = nullptr;
    C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
    const C3DGeomObject* mesh = nullptr;
    while (scene->GetNextNode(object, pos)) {
        if (object && object->GetKindOf() == KINDOF_MESH) {
            mesh = static_cast<const C3DGeomObject*>(object);
            break;
        }
    }
    if (!mesh) {
        std::fprintf(stderr, "orbiscope: cannot replace a layer from '%s': it holds no mesh.\n", meshFile);
        return EXIT_NOTHING_TO_WRITE;
    }
    LxoLayerMesh layer;
    layer.object = mesh;
    return Update(argv[0], argv[1], static_cast<uint32_t>(ref), &layer);
}

} // namespace

int RunLxoCommand(int argc, char** argv) {
    if (argc < 1) return Usage();
    const std::string cmd = argv[0];
    if (cmd == "dump") return Dump(argc - 1, argv + 1);
    if (cmd == "copy") {
        if (argc != 3) return Usage();
        return Update(argv[1], argv[2], 0, nullptr);
    }
    if (cmd == "replace") return Replace(argc - 1, argv + 1);
    if (cmd == "update") return UpdateLayers(argc - 1, argv + 1);
    return Usage();
}
