#include "formats/kmz/CKmzIo.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/TextHelpers.h"
#include "plugin/host/Zip.h"

namespace {

// Names from the KML reach the file system only when they stay inside the folder.
bool IsSafeReference(const CXStringW& s) {
    return !s.IsEmpty() && s.Find(L"..") < 0 && s.Find(L':') < 0 && s[0] != L'\\' && s[0] != L'/';
}

// The file name after the last '\' or '/'.
CXStringW LastPart(const CXStringW& s) {
    int cut = -1;
    for (int i = 0; i < s.GetLength(); ++i)
        if (s[i] == L'\\' || s[i] == L'/') cut = i;
    return s.Mid(cut + 1);
}

// The folder part with its trailing separator ("" for a bare name).
CXStringW FolderPart(const CXStringW& s) {
    int cut = -1;
    for (int i = 0; i < s.GetLength(); ++i)
        if (s[i] == L'\\' || s[i] == L'/') cut = i;
    return s.Left(cut + 1);
}

CXStringW OnDisk(CXStringW s) {
    s.Replace(L'\\', L'/');
    return s;
}

CXStringW Join(const CXStringW& folder, const CXStringW& rel) { return folder + L"/" + OnDisk(rel); }

// A name as the archive's lookups compare names: '/' for '\\', ASCII case folded.
std::string Folded(std::string s) {
    for (char& c : s) c = c == '\\' ? '/' : AsciiLower(c);
    return s;
}

// The archive's entries indexed once, so that each reference and each alias costs a lookup
// rather than a pass over every entry. Each lookup gives what CZip's FindFile (case folded,
// with the path) and FindMatchingFiles (a literal file name, or a literal folder then '*')
// give for the names the reader builds: the same entries, in index order.
class EntryIndex {
public:
    explicit EntryIndex(const CZip& zip) {
        m_sorted.reserve(zip.GetCount());
        for (uint32_t i = 0; i < zip.GetCount(); ++i) {
            std::string name = Folded(zip.GetName(i));
            m_byPath.emplace(name, i);
            m_byFileName[name.substr(name.find_last_of('/') + 1)].push_back(i);
            m_sorted.emplace_back(std::move(name), i);
        }
        std::sort(m_sorted.begin(), m_sorted.end());
    }
    uint32_t FindFile(const CXStringW& path) const {
        const auto it = m_byPath.find(Folded(PathToUtf8(path)));
        return it == m_byPath.end() ? CZip::kNotFound : it->second;
    }
    const std::vector<uint32_t>& WithFileName(const CXStringW& name) const {
        static const std::vector<uint32_t> kNone;
        const auto it = m_byFileName.find(Folded(PathToUtf8(name)));
        return it == m_byFileName.end() ? kNone : it->second;
    }
    std::vector<uint32_t> InFolder(const CXStringW& folder) const {
        const std::string prefix = Folded(PathToUtf8(folder));
        std::vector<uint32_t> found;
        for (auto it = std::lower_bound(m_sorted.begin(), m_sorted.end(), std::make_pair(prefix, uint32_t(0)));
             it != m_sorted.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
            found.push_back(it->second);
        std::sort(found.begin(), found.end());
        return found;
    }

private:
    std::vector<std::pair<std::string, uint32_t>> m_sorted;
    std::unordered_map<std::string, uint32_t> m_byPath; // the first entry of each name
    std::unordered_map<std::string, std::vector<uint32_t>> m_byFileName;
};

// A zip starts with a local header or, empty, with its end record; anything else is not ours
// (an empty buffer would otherwise open as an empty archive).
bool LooksLikeZip(std::span<const uint8_t> d) { return d.size() >= 22 && d[0] == 'P' && d[1] == 'K'; }

// Maps whose file is not where the model says are looked for by name in the texture
// paths (where the aliases put them), so that the scene's references resolve.
void ResolveTextures(C3DScene& scene) {
    CMaterialPos pos;
    for (C3DMaterial* m = scene.GetFirstMaterial(pos); m; m = scene.GetNextMaterial(pos)) {
        for (int i = 0; i < m->GetMaterialMapCount(); ++i) {
            CMaterialMap* map = m->GetMaterialMapByIndex(i);
            if (map->GetFileName().IsEmpty() || fileExists(map->GetFileName())) continue;
            // The KML's names were lower-cased on the way: compare without regard to case.
            const CXStringW want = LastPart(map->GetFileName());
            bool done = false;
            for (const CXStringW& folder : scene.GetTexturePaths()) {
                std::error_code ec;
                for (const auto& e : std::filesystem::directory_iterator(PathToUtf8(folder), ec)) {
                    const CXStringW have(Utf8ToWide(e.path().filename().string()));
                    if (have.CompareNoCase(want) != 0 || !e.is_regular_file(ec)) continue;
                    const CXStringW found(Utf8ToWide(e.path().string()));
                    scene.ReplaceRequiredFile(map->GetFileName(), found);
                    map->SetFileName(found);
                    done = true;
                    break;
                }
                if (done) break;
            }
        }
    }
}

} // namespace

CKmzIo::CKmzIo(CFileIo& io) : C3DParser(io) {}
CKmzIo::~CKmzIo() {}

C3DScene* CKmzIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadPackage(data, fileRemoveExtension(fileStripPath(ctx.Path())), ctx.Options());
    });
}

C3DScene* CKmzIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadPackage(bytes, L"memory", ctx.Options());
    });
}

C3DScene* CKmzIo::ReadPackage(std::span<const uint8_t> data, const CXStringW& name, CSceneImportOptions& options) {
    CZip zip;
    if (!LooksLikeZip(data) || !zip.OpenMemory(data, &options)) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    C3DScene* scene = ReadArchive(zip, name, options);
    zip.Close(false);
    return scene;
}

C3DScene* CKmzIo::ReadArchive(CZip& zip, const CXStringW& name, CSceneImportOptions& options) {
    const CXStringW tmp = fileCreateTmpFolder(fileGetTempDirectory(), L"tmpzip-" + name);
    if (tmp.IsEmpty()) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return nullptr;
    }
    std::unique_ptr<C3DScene> result;
    auto finish = [&]() -> C3DScene* {
        if (result) {
            result->SetParserData(true, kParserClass, tmp);
            SetScene(result.get());
            return result.release();
        }
        fileRemoveDirectory(tmp);
        return nullptr;
    };

    // doc.kml: absent or not extracted means no scene and no report.
    const uint32_t kml = zip.FindFile(L"doc.kml", false, false);
    if (kml == CZip::kNotFound || zip.ExtractFile(kml, tmp, true, nullptr, true) != CZip::EXTRACT_OK) return finish();
    CXStringW text;
    {
        IoFile doc(IsSilentMode(), TEXT_MODE_AUTO);
        if (!doc.OpenFile(Join(tmp, OnDisk(CXStringW(Utf8ToWide(zip.GetName(kml))))), true)) {
            // The folder is left in place here, as the reader always has.
            m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
            return nullptr;
        }
        CXStringW line;
        while (doc.ReadString(line)) text += line;
    }
    text.MakeLower();

    // Model references: the text between the '>' before each ".dae" and the '<' after it.
    std::vector<CXStringW> models;
    for (int pos = 0;;) {
        const int dae = text.Find(L".dae", pos);
        if (dae < 0) break;
        const int lt = text.Find(L'<', dae);
        if (lt < 0) break;
        int gt = -1;
        for (int i = dae; i >= 0; --i)
            if (text[i] == L'>') {
                gt = i;
                break;
            }
        if (gt < 0) break;
        CXStringW ref = text.Mid(gt + 1, lt - gt - 1);
        ref.Trim();
        ref.Replace(L'/', L'\\');
        models.push_back(ref);
        pos = lt;
    }
    if (models.empty()) {
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_ERROR);
        return finish();
    }

    // Aliases; a source or target an alias lacks carries over from the one before.
    CHashMap<CXStringW, CXStringW> aliases(23);
    CXStringW source, target;
    for (int pos = 0;;) {
        const int open = text.Find(L"<alias>", pos);
        if (open < 0) break;
        const int close = text.Find(L"</alias>", open);
        if (close < 0) break;
        const int s0 = text.Find(L"<sourcehref>", open), s1 = text.Find(L"</sourcehref>", open);
        const int t0 = text.Find(L"<targethref>", open), t1 = text.Find(L"</targethref>", open);
        pos = close;
        if (s0 >= 0 && s1 >= 0 && s0 < close && s1 < close && s1 >= s0 + 12) source = text.Mid(s0 + 12, s1 - s0 - 12);
        if (t0 >= 0 && t1 >= 0 && t0 < close && t1 < close && t1 >= t0 + 12) target = text.Mid(t0 + 12, t1 - t0 - 12);
        if (source.IsEmpty() || target.IsEmpty()) continue;
        CXStringW s = source, t = target;
        s.Trim();
        t.Trim();
        s.Replace(L'/', L'\\');
        t.Replace(L'/', L'\\');
        const CXStringW sName = LastPart(s), tName = LastPart(t);
        if (!IsSafeReference(sName) || !IsSafeReference(tName) || sName.CompareNoCase(tName) == 0) continue;
        aliases.SetAt(sName, tName);
    }
    // Each alias unpacks every entry of its target's name in turn to the top of the folder and
    // moves it to the source name: the last one unpacked stays, the others pass through, taking
    // with them any file of their name that was there. Many aliases may name one target: only
    // the first of them unpacks them all; the others unpack the one that stays and remove the
    // files the rest would have taken away (sources that other aliases put there since).
    struct Target {
        std::vector<uint32_t> unpacked;        // in order; the last one stays
        std::unordered_set<std::string> names; // their file names
        std::vector<std::string> exposed;      // files placed since, that those names would take
    };
    std::unordered_map<std::string, Target> targets; // by folded target name
    const EntryIndex entries(zip);
    auto place = [&](uint32_t entry, const CXStringW& src) {
        const CXStringW extracted = Join(tmp, LastPart(CXStringW(Utf8ToWide(zip.GetName(entry)))));
        fileDelete(Join(tmp, src));
        fileRename(extracted, Join(tmp, src));
    };
    for (const auto& [src, dst] : aliases) {
        const std::string key = Folded(PathToUtf8(dst));
        auto known = targets.find(key);
        bool done = false;
        if (known != targets.end() && !known->second.unpacked.empty()) {
            Target& t = known->second;
            for (const std::string& f : t.exposed) fileDelete(Join(tmp, CXStringW(Utf8ToWide(f))));
            t.exposed.clear();
            if (zip.ExtractFile(t.unpacked.back(), tmp, false, nullptr, true) == CZip::EXTRACT_OK) {
                place(t.unpacked.back(), src);
                done = true;
            }
        }
        if (!done && (known == targets.end() || !known->second.unpacked.empty())) {
            Target t;
            for (uint32_t e : entries.WithFileName(dst)) {
                if (zip.ExtractFile(e, tmp, false, nullptr, true) != CZip::EXTRACT_OK) continue;
                place(e, src);
                const std::string& stored = zip.GetName(e);
                t.unpacked.push_back(e);
                t.names.insert(stored.substr(stored.find_last_of("/\\") + 1));
            }
            if (known == targets.end()) targets.emplace(key, std::move(t));
        }
        // The source file now there is one a later alias of its name's target takes away.
        const std::string placed = PathToUtf8(src);
        if (auto other = targets.find(Folded(placed)); other != targets.end() && other->second.names.count(placed))
            other->second.exposed.push_back(placed);
    }

    bool abandoned = false;
    CXStringW merged;
    // Each model's folder is unpacked with it; an entry is tried once, however many models
    // share its folder (again would write the same bytes and log the same refusal).
    std::unordered_set<std::string> foldersDone;
    std::vector<bool> tried(zip.GetCount(), false);
    for (const CXStringW& ref : models) {
        if (IsCancelled()) break;
        if (!IsSafeReference(ref)) continue;
        const CXStringW folder = OnDisk(FolderPart(ref));
        if (foldersDone.insert(Folded(PathToUtf8(folder))).second) {
            // An entry refused for its name or kind is left out (and logged); one that fails to unpack ends the read.
            for (uint32_t e : entries.InFolder(folder)) {
                if (tried[e]) continue;
                tried[e] = true;
                abandoned = zip.ExtractFile(e, tmp, true, nullptr, true) == CZip::EXTRACT_FAILED;
                if (abandoned) break;
            }
        }
        if (abandoned) break;
        // The KML's lower-cased name reaches the archive's own spelling of it.
        const uint32_t entry = entries.FindFile(ref);
        const CXStringW modelPath =
            Join(tmp, entry == CZip::kNotFound ? ref : CXStringW(Utf8ToWide(zip.GetName(entry))));
        CFileIo io(modelPath);
        io.SetSilentMode(IsSilentMode());
        CSceneImportOptions modelOptions;
        std::unique_ptr<C3DScene> model = C3DIo::ReadScene(modelPath, io, 0, &modelOptions);
        for (const IoLogInfo& l : modelOptions.GetLog()) options.AddLogInfo(l.level, l.text);
        if (!model) continue;
        if (!result) {
            result = std::make_unique<C3DScene>();
            result->SetUnit(model->GetUnit());
            result->SetScaleFactor(model->GetScaleFactor());
        }
        result->AddScene(*model);
        result->AddTexturePath(Join(tmp, FolderPart(ref)));
        merged += ref + L"\n";
    }
    if (abandoned) return finish();
    if (IsCancelled()) {
        result.reset();
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
    } else if (!result) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
    } else {
        if (aliases.GetCount() > 0) result->AddTexturePath(tmp);
        ResolveTextures(*result);
        result->GetCustomData().SetString(kMergedModels, merged);
    }
    return finish();
}
