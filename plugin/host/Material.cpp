#include "plugin/host/Material.h"

C3DMaterial::C3DMaterial(const C3DMaterial& o)
    : diffuse(o.diffuse), diffuseFactor(o.diffuseFactor), transparency(o.transparency), smoothAngle(o.smoothAngle),
      alphaMode(o.alphaMode), vertexColor(o.vertexColor), flags(o.flags), m_class(o.m_class), m_id(o.m_id),
      m_name(o.m_name), m_custom(o.m_custom) {
    m_maps.reserve(o.m_maps.size());
    for (auto& m : o.m_maps) m_maps.push_back(std::make_unique<CMaterialMap>(*m));
}

CMaterialMap* C3DMaterial::AddMaterialMap(const CXStringW& file, int32_t channel, uint32_t type, uint32_t projection) {
    auto m = std::make_unique<CMaterialMap>();
    m->file = file;
    m->channel = channel;
    m->type = type;
    m->projection = projection;
    m_maps.push_back(std::move(m));
    return m_maps.back().get();
}

CMaterialMap* C3DMaterial::GetMaterialMap(uint32_t type) const {
    for (auto& m : m_maps)
        if (m->type == type) return m.get();
    return nullptr;
}
