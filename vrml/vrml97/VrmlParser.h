#pragma once
// The VRML97 utf8 reader. A streaming scanner (16 KiB buffer, the input is copied
// only into that buffer) feeds a recursive-descent parser for the Annex A grammar.
// Field values are not grammar rules: the parser tells the scanner which field
// type comes next (the expected-token slot) and gets back one token carrying the
// finished value. Token numbers follow the generated parser of the format's
// reference grammar: keywords 258..270, field values 271..289.
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "vrml/vrml97/VrmlField.h"

class Doc;
class VrmlNamespace;
class VrmlNode;
class VrmlNodeType;

namespace vrmltok {
enum Token {
    END = 0,
    IDENTIFIER = 258,
    DEF,
    USE,
    PROTO,
    EXTERNPROTO,
    TO,
    IS,
    ROUTE,
    SFN_NULL,
    EVENTIN,
    EVENTOUT,
    FIELD,
    EXPOSEDFIELD,
    SFBOOL = 271,
    SFCOLOR,
    SFFLOAT,
    SFINT32,
    SFROTATION,
    SFTIME,
    SFIMAGE,
    SFSTRING,
    SFVEC2F,
    SFVEC3F,
    MFCOLOR,
    MFFLOAT,
    MFINT32,
    MFROTATION,
    MFSTRING,
    MFVEC2F,
    MFVEC3F,
    SFNODE,
    MFNODE,
    // Outside the grammar's own set: raw items the generic skip consumes.
    NUMBER = 300,
    STRING,
    OTHER
};
// Field type enumeration value to its value token (0 for anything else).
int tokenForFieldType(int fieldType);
} // namespace vrmltok

class VrmlLexer {
public:
    explicit VrmlLexer(FILE* fp);
    VrmlLexer(const char* data, size_t size);

    // Next token; value tokens leave their value in takeValue().
    int next();
    const std::string& text() const { return d_text; }
    std::unique_ptr<VrmlField> takeValue() { return std::move(d_value); }
    int line() const { return d_line; }
    // Line on which the last token began (a string may span lines).
    int tokenLine() const { return d_tokenLine; }
    // Size of the input in bytes (0 for a pipe).
    unsigned long long inputSize() const { return d_totalSize; }

    void expect(int token) { d_expectToken = token; }
    int expectToken() const { return d_expectToken; }
    void setCoordIndex(bool on) { d_coordIndex = on; }
    // Looks past separators: is the next character '{'? Consumes only separators.
    bool nextIsOpenBrace() {
        skipSeparators();
        return peekc() == '{';
    }

private:
    bool fill(size_t need);
    int peekc(size_t ahead = 0);
    void skipSeparators();
    int scanNormal();
    int scanValue(int token);
    bool readFloat(float& out);
    bool readDouble(double& out);
    bool readInt(int32_t& out);
    bool readDecimalInt(int64_t& out);
    bool readString(std::string& out);
    bool readWord(std::string& out);
    bool atWord(const char* w);
    void report(const char* msg);
    std::unique_ptr<VrmlField> scanImage();
    template <class T, class Read> bool readList(std::vector<T>& out, int width, Read read, bool& bracketed);

    FILE* d_fp = nullptr;
    std::vector<char> d_buffer;
    const char* d_cur = nullptr;
    const char* d_end = nullptr;
    bool d_eof = false;
    unsigned long long d_totalSize = 0; // bytes of the input (for SFImage bounds)
    unsigned long long d_consumedBefore = 0;
    int d_line = 1;
    int d_tokenLine = 1;
    int d_expectToken = 0;
    bool d_coordIndex = false;
    std::string d_text;
    std::unique_ptr<VrmlField> d_value;
};

// One parse: namespace, document, PROTO and node stacks, the result list.
class VrmlParser {
public:
    VrmlParser(VrmlLexer& lexer, VrmlNamespace* ns, const Doc* doc);
    ~VrmlParser();
    // Top-level nodes (null when none were read). Caller owns the list.
    VrmlMFNode* parse();

    static constexpr int kMaxDepth = 1000;

private:
    struct Frame {
        VrmlNode* node;
        VrmlNodeType* type;
        std::string fieldName;
        int fieldType;
    };
    void advance();
    void report(int line, const char* fmt, va_list ap);
    void error(const char* fmt, ...);
    void errorAt(int line, const char* fmt, ...);
    void syntaxError();
    VrmlNamespace* currentScope() const;
    bool onNodeStack(const VrmlNode* n) const;

    void parseStatement();
    VrmlNode* parseNodeStatement();
    VrmlNode* parseNode(const std::string& defName);
    void parseNodeBody();
    void parseFieldOrEvent();
    std::unique_ptr<VrmlField> parseFieldValue(int fieldType);
    void parseIS();
    void skipIS();
    void parseScriptDecl();
    void parseProto();
    void parseExternProto();
    void parseInterfaceDecl(VrmlNodeType* t, bool external);
    void parseRoute();
    void skipValue();
    void skipBalanced();
    void attachTopLevel(VrmlNode* n);

    VrmlLexer& d_lex;
    VrmlNamespace* d_ns;
    const Doc* d_doc;
    int d_tok = 0;
    int d_tokLine = 1; // line on which d_tok began
    std::string d_text;
    bool d_abort = false;
    int d_depth = 0;
    std::vector<VrmlNodeType*> d_protoStack;
    std::vector<Frame> d_frames;
    VrmlMFNode* d_result = nullptr;
};
