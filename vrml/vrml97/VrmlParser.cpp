// Recursive-descent parser for the VRML97 grammar (ISO/IEC 14772-1 Annex A).
// Errors print "Error near line N: ..." and parsing goes on; a syntax error ends
// the parse: the nodes completed before it are kept, the ones it cut short are not.
#include "vrml/vrml97/VrmlParser.h"

#include <cstdarg>
#include <cstring>

#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"

using namespace vrmltok;

VrmlParser::VrmlParser(VrmlLexer& lexer, VrmlNamespace* ns, const Doc* doc) : d_lex(lexer), d_ns(ns), d_doc(doc) {}

VrmlParser::~VrmlParser() { delete d_result; }

void VrmlParser::report(int line, const char* fmt, va_list ap) {
    char msg[1024];
    std::vsnprintf(msg, sizeof msg, fmt, ap);
    theSystem->error("Error near line %d: %s\n", line, msg);
    d_lex.expect(0);
}

void VrmlParser::error(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    report(d_lex.line(), fmt, ap);
    va_end(ap);
}

// For a complaint about a name read a token or more ago: the lexer has moved on,
// possibly to a later line.
void VrmlParser::errorAt(int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    report(line, fmt, ap);
    va_end(ap);
}

void VrmlParser::syntaxError() {
    if (d_abort) return;
    error("parse error");
    d_abort = true;
}

void VrmlParser::advance() {
    d_tok = d_lex.next();
    d_tokLine = d_lex.tokenLine();
    if (d_tok == IDENTIFIER) d_text = d_lex.text();
}

VrmlNamespace* VrmlParser::currentScope() const {
    if (!d_protoStack.empty()) return d_protoStack.back()->scope().get();
    return d_ns;
}

bool VrmlParser::onNodeStack(const VrmlNode* n) const {
    for (const Frame& f : d_frames)
        if (f.node == n) return true;
    return false;
}

VrmlMFNode* VrmlParser::parse() {
    advance();
    while (!d_abort && d_tok != END) parseStatement();
    VrmlMFNode* r = d_result;
    d_result = nullptr;
    return r;
}

void VrmlParser::attachTopLevel(VrmlNode* n) {
    if (!n) return;
    if (!d_protoStack.empty()) {
        d_protoStack.back()->addNode(n);
        return;
    }
    if (!d_result) d_result = new VrmlMFNode;
    d_result->add(n);
}

void VrmlParser::parseStatement() {
    switch (d_tok) {
    case DEF:
    case USE:
    case IDENTIFIER: {
        VrmlNode* n = parseNodeStatement();
        attachTopLevel(n);
        if (n) n->release();
        return;
    }
    case PROTO: parseProto(); return;
    case EXTERNPROTO: parseExternProto(); return;
    case ROUTE: parseRoute(); return;
    default: syntaxError(); return;
    }
}

// Returns the node with one reference held for the caller (or null).
VrmlNode* VrmlParser::parseNodeStatement() {
    if (d_tok == DEF) {
        advance();
        if (d_tok != IDENTIFIER) {
            syntaxError();
            return nullptr;
        }
        std::string name = d_text;
        advance();
        if (d_tok != IDENTIFIER) {
            syntaxError();
            return nullptr;
        }
        return parseNode(name);
    }
    if (d_tok == USE) {
        advance();
        if (d_tok != IDENTIFIER) {
            syntaxError();
            return nullptr;
        }
        VrmlNode* n = currentScope()->findNode(d_text.c_str());
        if (n && onNodeStack(n)) {
            // Would make a cycle: the node is still being read.
            error("USE of node %s inside its own definition", d_text.c_str());
            n = nullptr;
        }
        advance();
        return n ? n->addRef() : nullptr;
    }
    if (d_tok == IDENTIFIER) return parseNode(std::string());
    syntaxError();
    return nullptr;
}

VrmlNode* VrmlParser::parseNode(const std::string& defName) {
    std::string typeName = d_text;
    int typeLine = d_tokLine;
    advance();
    if (d_tok != '{') {
        syntaxError();
        return nullptr;
    }
    if (d_depth >= kMaxDepth) {
        error("parser stack overflow");
        d_abort = true;
        return nullptr;
    }
    VrmlNamespace* scope = currentScope();
    VrmlNodeType* type = scope->findType(typeName.c_str());
    VrmlNode* node = nullptr;
    if (!type) {
        errorAt(typeLine, "Unknown node type '%s'", typeName.c_str());
    } else {
        node = type->create(nullptr);
        node->addRef();
        if (!defName.empty()) node->setName(defName.c_str(), scope);
    }
    ++d_depth;
    d_frames.push_back({node, type, std::string(), 0});
    advance();
    parseNodeBody();
    bool complete = !d_abort && d_tok == '}';
    if (complete) advance();
    d_frames.pop_back();
    --d_depth;
    if (!complete && node) {
        // Cut short by a syntax error: the node is dropped whole, not kept half read.
        node->release();
        node = nullptr;
    }
    return node;
}

void VrmlParser::parseNodeBody() {
    while (!d_abort) {
        switch (d_tok) {
        case '}': return;
        case IDENTIFIER: parseFieldOrEvent(); break;
        case ROUTE: parseRoute(); break;
        case PROTO: parseProto(); break;
        case EXTERNPROTO: parseExternProto(); break;
        case EVENTIN:
        case EVENTOUT:
        case FIELD:
        case EXPOSEDFIELD: parseScriptDecl(); break;
        default: syntaxError(); return;
        }
    }
}

void VrmlParser::parseFieldOrEvent() {
    std::string name = d_text;
    Frame& frame = d_frames.back();
    frame.fieldName = name;
    frame.fieldType = 0;
    VrmlNode* node = frame.node;
    if (!node) {
        // Unknown node type: nothing to check, the value is skipped.
        advance();
        if (d_tok == IS) skipIS();
        else skipValue();
        return;
    }
    VrmlNodeType* t = frame.type;
    VrmlNodeScript* script = node->asScript();
    const char* n = name.c_str();
    if (t->hasEventIn(n) || t->hasEventOut(n) || (script && (script->hasEventIn(n) || script->hasEventOut(n)))) {
        // Only IS may follow an event name; anything else is skipped quietly.
        advance();
        if (d_tok == IS) parseIS();
        else skipValue();
        frame.fieldName.clear();
        return;
    }
    int ft = t->hasField(n);
    if (!ft && script) ft = script->hasField(n);
    if (!ft) {
        error("%s nodes do not have %s fields/eventIns/eventOuts", t->getName(), n);
        advance();
        if (d_tok == IS) skipIS();
        else skipValue();
        return;
    }
    frame.fieldType = ft;
    d_lex.expect(tokenForFieldType(ft));
    d_lex.setCoordIndex(name == "coordIndex");
    advance();
    if (d_tok == IS) {
        parseIS();
        return;
    }
    std::unique_ptr<VrmlField> value = parseFieldValue(ft);
    if (value) node->setField(n, *value);
}

// Current token is the value token the expected slot produced.
std::unique_ptr<VrmlField> VrmlParser::parseFieldValue(int fieldType) {
    int want = tokenForFieldType(fieldType);
    if (d_tok != want) {
        syntaxError();
        return nullptr;
    }
    if (d_tok == SFNODE) {
        advance();
        if (d_tok == SFN_NULL) {
            advance();
            return std::make_unique<VrmlSFNode>(nullptr);
        }
        VrmlNode* n = parseNodeStatement();
        auto v = std::make_unique<VrmlSFNode>(n);
        if (n) n->release();
        return v;
    }
    if (d_tok == MFNODE) {
        advance();
        auto v = std::make_unique<VrmlMFNode>();
        if (d_tok == '[') {
            advance();
            while (!d_abort && d_tok != ']') {
                if (d_tok == SFN_NULL) {
                    advance();
                    continue;
                }
                if (d_tok != DEF && d_tok != USE && d_tok != IDENTIFIER) {
                    syntaxError();
                    break;
                }
                VrmlNode* n = parseNodeStatement();
                if (n) {
                    v->add(n);
                    n->release();
                }
            }
            if (!d_abort) advance();
        } else if (d_tok == SFN_NULL) {
            advance();
        } else {
            VrmlNode* n = parseNodeStatement();
            if (n) {
                v->add(n);
                n->release();
            }
        }
        return v;
    }
    std::unique_ptr<VrmlField> v = d_lex.takeValue();
    advance();
    return v;
}

void VrmlParser::skipIS() {
    advance();
    if (d_tok == IDENTIFIER) advance();
}

void VrmlParser::parseIS() {
    advance();
    if (d_tok != IDENTIFIER) {
        error("invalid IS field name (null)");
        return;
    }
    std::string iname = d_text;
    int nameLine = d_tokLine;
    advance();
    if (d_frames.empty()) {
        errorAt(nameLine, "IS statement (%s) without field declaration", iname.c_str());
        return;
    }
    Frame& frame = d_frames.back();
    if (!d_protoStack.empty()) {
        VrmlNodeType* proto = d_protoStack.back();
        if (!frame.fieldName.empty()) {
            if (frame.node) proto->addIS(iname.c_str(), frame.node, frame.fieldName.c_str());
        } else {
            errorAt(nameLine, "invalid IS interface name (%s) in PROTO %s", iname.c_str(), proto->getName());
        }
        return;
    }
    if (frame.type && std::strcmp(frame.type->getName(), "Script") == 0) {
        if (frame.node && frame.fieldType == VrmlField::SFNODE) {
            VrmlNode* target = currentScope()->findNode(iname.c_str());
            if (target && onNodeStack(target)) {
                // The Script (or a node around it) would hold itself: a cycle no release frees.
                errorAt(nameLine, "IS statement (%s) names a node inside its own definition", iname.c_str());
                target = nullptr;
            }
            VrmlSFNode v(target);
            frame.node->setField(frame.fieldName.c_str(), v);
        }
        return;
    }
    errorAt(nameLine, "IS statement (%s) must be in a PROTO or Script.", iname.c_str());
}

void VrmlParser::parseScriptDecl() {
    int kind = d_tok;
    advance();
    if (d_tok != IDENTIFIER) return syntaxError();
    std::string typeName = d_text;
    advance();
    if (d_tok != IDENTIFIER) return syntaxError();
    std::string name = d_text;
    Frame& frame = d_frames.back();
    VrmlNodeScript* script = frame.node ? frame.node->asScript() : nullptr;
    bool isField = kind == FIELD || kind == EXPOSEDFIELD;
    int ft = VrmlField::typeFromName(typeName.c_str());
    if (!script || !ft) {
        if (!script) error("interface declaration outside of Script");
        else error("invalid Script field %s type: %s", name.c_str(), typeName.c_str());
        advance();
        if (d_tok == IS) skipIS();
        else if (isField) skipValue();
        return;
    }
    auto type = static_cast<VrmlField::VrmlFieldType>(ft);
    frame.fieldName = name;
    frame.fieldType = isField ? ft : 0;
    if (!isField) {
        if (kind == EVENTIN) script->addEventIn(name.c_str(), type);
        else script->addEventOut(name.c_str(), type);
        advance();
        if (d_tok == IS) parseIS();
        frame.fieldName.clear();
        return;
    }
    script->addField(name.c_str(), type);
    d_lex.expect(tokenForFieldType(ft));
    advance();
    if (d_tok == IS) {
        parseIS();
    } else {
        std::unique_ptr<VrmlField> value = parseFieldValue(ft);
        if (value) script->setField(name.c_str(), *value);
    }
    // Nested nodes may have moved the frame stack: look the frame up again.
    d_frames.back().fieldName.clear();
}

void VrmlParser::parseInterfaceDecl(VrmlNodeType* t, bool external) {
    int kind = d_tok;
    advance();
    if (d_tok != IDENTIFIER) return syntaxError();
    std::string typeName = d_text;
    advance();
    if (d_tok != IDENTIFIER) return syntaxError();
    std::string name = d_text;
    int ft = VrmlField::typeFromName(typeName.c_str());
    bool isField = kind == FIELD || kind == EXPOSEDFIELD;
    if (!ft) {
        const char* what = kind == EVENTIN    ? "eventIn"
                           : kind == EVENTOUT ? "eventOut"
                           : kind == FIELD    ? "field"
                                              : "exposedField";
        error("invalid %s type: %s", what, typeName.c_str());
        advance();
        if (isField && !external) skipValue();
        return;
    }
    auto type = static_cast<VrmlField::VrmlFieldType>(ft);
    switch (kind) {
    case EVENTIN: t->addEventIn(name.c_str(), type); break;
    case EVENTOUT: t->addEventOut(name.c_str(), type); break;
    case FIELD: t->addField(name.c_str(), type); break;
    default: t->addExposedField(name.c_str(), type); break;
    }
    if (!isField || external) {
        advance();
        return;
    }
    d_lex.expect(tokenForFieldType(ft));
    advance();
    std::unique_ptr<VrmlField> value = parseFieldValue(ft);
    if (value) t->setFieldDefault(name.c_str(), value.get());
}

void VrmlParser::parseProto() {
    advance();
    if (d_tok != IDENTIFIER) return syntaxError();
    if (d_depth >= kMaxDepth) {
        error("parser stack overflow");
        d_abort = true;
        return;
    }
    VrmlNodeType* t = (new VrmlNodeType(d_text.c_str()))->reference();
    t->setScope(VrmlNamespace::createChild(currentScope()));
    advance();
    ++d_depth;
    d_protoStack.push_back(t);
    if (d_tok != '[') {
        syntaxError();
    } else {
        advance();
        while (!d_abort && d_tok != ']') {
            if (d_tok == EVENTIN || d_tok == EVENTOUT || d_tok == FIELD || d_tok == EXPOSEDFIELD)
                parseInterfaceDecl(t, false);
            else syntaxError();
        }
        if (!d_abort) advance();
        if (!d_abort && d_tok != '{') syntaxError();
        if (!d_abort) {
            advance();
            while (!d_abort && d_tok != '}' && d_tok != END) parseStatement();
            if (!d_abort && d_tok == '}') advance();
            else syntaxError();
        }
    }
    d_protoStack.pop_back();
    --d_depth;
    if (!d_abort) currentScope()->addNodeType(t);
    t->dereference();
}

void VrmlParser::parseExternProto() {
    advance();
    if (d_tok != IDENTIFIER) return syntaxError();
    VrmlNodeType* t = (new VrmlNodeType(d_text.c_str()))->reference();
    advance();
    if (d_tok != '[') {
        t->dereference();
        return syntaxError();
    }
    advance();
    while (!d_abort && d_tok != ']') {
        if (d_tok == EVENTIN || d_tok == EVENTOUT || d_tok == FIELD || d_tok == EXPOSEDFIELD)
            parseInterfaceDecl(t, true);
        else syntaxError();
    }
    if (!d_abort) {
        d_lex.expect(MFSTRING);
        advance();
        if (d_tok != MFSTRING) {
            syntaxError();
        } else {
            std::unique_ptr<VrmlField> urls = d_lex.takeValue();
            advance();
            t->setUrl(urls ? urls->asMFString() : nullptr, d_doc);
            currentScope()->addNodeType(t);
        }
    }
    t->dereference();
}

void VrmlParser::parseRoute() {
    std::string part[4];
    int line[4] = {0, 0, 0, 0};
    advance();
    for (int i = 0; i < 4; ++i) {
        if (i == 2) {
            if (d_tok != TO) return syntaxError();
            advance();
        }
        if (d_tok != IDENTIFIER) return syntaxError();
        part[i] = d_text;
        line[i] = d_tokLine;
        advance();
        if (i == 0 || i == 2) {
            if (d_tok != '.') return syntaxError();
            advance();
        }
    }
    VrmlNamespace* scope = currentScope();
    VrmlNode* from = scope->findNode(part[0].c_str());
    VrmlNode* to = scope->findNode(part[2].c_str());
    if (!from) errorAt(line[0], "invalid %s node name \"%s\" in ROUTE statement.", "source", part[0].c_str());
    else if (!to) errorAt(line[2], "invalid %s node name \"%s\" in ROUTE statement.", "destination", part[2].c_str());
    else from->addRoute(part[1].c_str(), to, part[3].c_str());
}

// Skips one value of unknown type: scalars and strings, a bracketed list, a
// node (with DEF/USE), NULL, so that reading resumes at the next field.
void VrmlParser::skipValue() {
    for (;;) {
        switch (d_tok) {
        case NUMBER:
        case STRING: advance(); continue;
        case IDENTIFIER: {
            if (d_text == "TRUE" || d_text == "FALSE") {
                advance();
                continue;
            }
            // A word followed by '{' is a node (the value); any other word is
            // the next field's name and stays the current token.
            if (d_lex.nextIsOpenBrace()) {
                advance();
                skipBalanced();
            }
            return;
        }
        case '[': skipBalanced(); return;
        case DEF:
            advance();
            if (d_tok == IDENTIFIER) advance();
            continue;
        case USE:
            advance();
            if (d_tok == IDENTIFIER) advance();
            return;
        case SFN_NULL: advance(); return;
        default: return;
        }
    }
}

void VrmlParser::skipBalanced() {
    int depth = 0;
    do {
        if (d_tok == '{' || d_tok == '[') ++depth;
        else if (d_tok == '}' || d_tok == ']') --depth;
        else if (d_tok == END) return;
        advance();
    } while (depth > 0);
}
