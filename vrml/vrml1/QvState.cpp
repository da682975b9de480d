#include "vrml/vrml1/QvState.h"

#include "plugin/host/NumberFormat.h"

namespace {
constexpr const char* kKindNames[QvElement::NumKinds] = {
    "Coordinate3",
    "Info",
    "MaterialBinding",
    "MatrixTransform",
    "NormalBinding",
    "OrthographicCamera",
    "PerspectiveCamera",
    "Separator",
    "ShapeHints",
    "Texture2",
    "Texture2Transform",
    "TextureCoordinate2",
    "TextureCoordinateBinding",
    "TransformSeparator",
    "WWWAnchor",
    "WWWInline",
    "DrawStyle",
    "LightModel",
    "BaseColor",
    "Camera",
    "Light",
    "Texture2Transformation",
    "Transformation",
    "Material",
    "Normal",
};
} // namespace

const char* QvElement::kindName(int kind) { return kind >= 0 && kind < NumKinds ? kKindNames[kind] : "?"; }

QvState::QvState() {
    for (auto& s : m_stacks) s = nullptr;
}

QvState::~QvState() {
    for (int k = 0; k < QvElement::NumKinds; ++k)
        while (m_stacks[k]) popTop(k);
    for (QvElement* e : m_free) delete e;
}

QvElement* QvState::push(int kind, QvNode* node) {
    QvElement* e;
    if (!m_free.empty()) {
        e = m_free.back();
        m_free.pop_back();
        *e = QvElement();
    } else {
        e = new QvElement();
    }
    e->node = node;
    e->depth = m_depth;
    e->seq = ++m_seq;
    if (QvElement* below = m_stacks[kind]) e->matrix = below->matrix;
    e->next = m_stacks[kind];
    m_stacks[kind] = e;
    return e;
}

void QvState::popTop(int kind) {
    QvElement* e = m_stacks[kind];
    m_stacks[kind] = e->next;
    m_free.push_back(e);
}

void QvState::popTo(int kind, QvElement* mark) {
    while (m_stacks[kind] && m_stacks[kind] != mark) popTop(kind);
}

void QvState::push() { ++m_depth; }

void QvState::pop() {
    for (int k = 0; k < QvElement::NumKinds; ++k)
        while (m_stacks[k] && m_stacks[k]->depth >= m_depth) popTop(k);
    --m_depth;
}

void QvState::print(std::string& out) const {
    const std::string dashes(62, '-');
    out += "Traversal state:\n";
    out += dashes;
    out += '\n';
    for (int k = 0; k < QvElement::NumKinds; ++k) {
        numfmt::AppendFormat(out, "\tStack [%2d] (%s):\n", k, kKindNames[k]);
        if (!m_stacks[k]) out += "\t\tNULL\n";
        for (const QvElement* e = m_stacks[k]; e; e = e->next)
            numfmt::AppendFormat(out, "\t\tElement of type %s\n", kKindNames[k]);
    }
    out += dashes;
    out += '\n';
}
