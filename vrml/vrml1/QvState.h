#pragma once
// Traversal state of a VRML 1.0 tree: one stack per element kind, each a linked list
// of elements pushed by property nodes and popped when the Separator that holds them
// ends. Transform elements also carry the accumulated matrix.
#include <cstdint>
#include <string>
#include <vector>

#include "plugin/host/Math3D.h"

class QvNode;

struct QvElement {
    enum Kind : int {
        Coordinate3,
        Info,
        MaterialBinding,
        MatrixTransform,
        NormalBinding,
        OrthographicCamera,
        PerspectiveCamera,
        Separator,
        ShapeHints,
        Texture2,
        Texture2Transform,
        TextureCoordinate2,
        TextureCoordinateBinding,
        TransformSeparator,
        WWWAnchor,
        WWWInline,
        DrawStyle,
        LightModel,
        BaseColor,
        Camera,
        Light,
        Texture2Transformation,
        Transformation,
        // Kinds the import adds for the material and normal lists.
        Material,
        Normal,
        NumKinds
    };
    static const char* kindName(int kind);

    QvNode* node = nullptr; // the node that set it (not referenced: the tree outlives the state)
    int depth = 0;          // Separator level it was pushed at
    uint64_t seq = 0;       // push order, across kinds
    C4x4Matrix matrix;      // Transformation and Texture2Transformation: the accumulated matrix
    QvElement* next = nullptr;
};

class QvState {
public:
    QvState();
    ~QvState();
    QvState(const QvState&) = delete;
    QvState& operator=(const QvState&) = delete;

    QvElement* push(int kind, QvNode* node);
    QvElement* top(int kind) const { return m_stacks[kind]; }
    // Pops `kind` until `mark` is its top again (TransformSeparator).
    void popTo(int kind, QvElement* mark);

    // A Separator begins / ends: everything pushed in between goes.
    void push();
    void pop();
    int getDepth() const { return m_depth; }

    // The debug listing of every stack.
    void print(std::string& out) const;

private:
    void popTop(int kind);
    QvElement* m_stacks[QvElement::NumKinds];
    std::vector<QvElement*> m_free;
    int m_depth = 0;
    uint64_t m_seq = 0;
};
