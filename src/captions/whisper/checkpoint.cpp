#include "captions/whisper/checkpoint.h"

#include "base/files.h"

#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plim::whisper {

namespace {

// The whole file, mapped read-only.
class MappedFile {
public:
    ~MappedFile()
    {
        if (m_data)
            munmap(const_cast<unsigned char*>(m_data), m_size);
    }
    static Result<std::unique_ptr<MappedFile>> open(const std::filesystem::path& path)
    {
        int fd = PLIM_TRY(openOrdinaryFile(path));
        struct stat st {};
        auto file = std::make_unique<MappedFile>();
        if (fstat(fd, &st) == 0 && st.st_size > 0) {
            void* p = mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
            if (p != MAP_FAILED) {
                file->m_data = static_cast<const unsigned char*>(p);
                file->m_size = size_t(st.st_size);
            }
        }
        close(fd);
        if (!file->m_data)
            return fail("it could not be mapped into memory", Error::Kind::unreadable);
        return file;
    }
    std::string_view bytes() const { return {reinterpret_cast<const char*>(m_data), m_size}; }

private:
    const unsigned char* m_data = nullptr;
    size_t m_size = 0;
};

uint64_t le(std::string_view b, size_t at, int n)
{
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i)
        v = (v << 8) | uint8_t(b[at + size_t(i)]);
    return v;
}

// Entry name -> its stored bytes.
using ZipEntries = std::map<std::string, std::string_view>;

std::optional<ZipEntries> readZip(std::string_view f, std::string& why)
{
    auto bad = [&](const char* what) { why = what; return std::nullopt; };
    if (f.size() < 22)
        return bad("it is too short to be a checkpoint");
    size_t eocd = std::string_view::npos;
    size_t lowest = f.size() > 22 + 65535 ? f.size() - 22 - 65535 : 0;
    for (size_t at = f.size() - 22 + 1; at-- > lowest;)
        if (le(f, at, 4) == 0x06054b50) {
            eocd = at;
            break;
        }
    if (eocd == std::string_view::npos)
        return bad(f.substr(0, 2) == "PK" ? "its zip directory is missing (the file looks cut short)"
                                          : "it is not a zip-format PyTorch checkpoint");
    uint64_t count = le(f, eocd + 10, 2), cdSize = le(f, eocd + 12, 4), cdOffset = le(f, eocd + 16, 4);
    if ((count == 0xffff || cdSize == 0xffffffff || cdOffset == 0xffffffff) && eocd >= 20
        && le(f, eocd - 20, 4) == 0x07064b50) {
        uint64_t z = le(f, eocd - 20 + 8, 8);
        if (z + 56 > f.size() || le(f, size_t(z), 4) != 0x06064b50)
            return bad("its zip directory is damaged");
        count = le(f, size_t(z) + 32, 8);
        cdSize = le(f, size_t(z) + 40, 8);
        cdOffset = le(f, size_t(z) + 48, 8);
    }
    if (cdOffset > f.size() || cdSize > f.size() - cdOffset)
        return bad("its zip directory points past the end of the file (the file looks cut short)");
    ZipEntries entries;
    size_t at = size_t(cdOffset), end = size_t(cdOffset + cdSize);
    for (uint64_t i = 0; i < count; ++i) {
        if (at + 46 > end || le(f, at, 4) != 0x02014b50)
            return bad("its zip directory is damaged");
        uint64_t method = le(f, at + 10, 2), size = le(f, at + 20, 4), raw = le(f, at + 24, 4);
        uint64_t local = le(f, at + 42, 4);
        size_t nameLen = le(f, at + 28, 2), extraLen = le(f, at + 30, 2), commentLen = le(f, at + 32, 2);
        if (at + 46 + nameLen + extraLen + commentLen > end)
            return bad("its zip directory is damaged");
        std::string name(f.substr(at + 46, nameLen));
        // Sizes and offsets too large for 32 bits sit in the zip64 extra field, in this order.
        for (size_t x = at + 46 + nameLen, xEnd = x + extraLen; x + 4 <= xEnd;) {
            size_t id = le(f, x, 2), len = le(f, x + 2, 2);
            if (x + 4 + len > xEnd)
                break;
            if (id == 1) {
                size_t p = x + 4;
                for (uint64_t* field : {&raw, &size, &local})
                    if (*field == 0xffffffff && p + 8 <= x + 4 + len) {
                        *field = le(f, p, 8);
                        p += 8;
                    }
            }
            x += 4 + len;
        }
        if (method != 0 || size != raw)
            return bad("it holds compressed entries, which PyTorch never writes");
        if (local + 30 > f.size() || le(f, size_t(local), 4) != 0x04034b50)
            return bad("an entry of its zip directory points at nothing");
        uint64_t data = local + 30 + le(f, size_t(local) + 26, 2) + le(f, size_t(local) + 28, 2);
        if (data > f.size() || size > f.size() - data)
            return bad("an entry runs past the end of the file (the file looks cut short)");
        entries[name] = f.substr(size_t(data), size_t(size));
        at += 46 + nameLen + extraLen + commentLen;
    }
    return entries;
}

// What the pickle machine works with.
struct Value;
using ValuePtr = std::shared_ptr<Value>;
struct Value {
    enum class Kind { none, boolean, integer, real, string, tuple, list, dict, global, storage, tensor, mark };
    Kind kind = Kind::none;
    int64_t integer = 0;
    double real = 0;
    std::string text;                                 // string; global "module.name"; storage key
    std::vector<ValuePtr> items;                      // tuple, list; tensor: size and stride tuples
    std::vector<std::pair<ValuePtr, ValuePtr>> dict;  // dict
    bool half = false;                                // storage
    ValuePtr storage;                                 // tensor
};

ValuePtr make(Value::Kind kind)
{
    auto v = std::make_shared<Value>();
    v->kind = kind;
    return v;
}

struct Refusal {
    std::string what;   // the foreign name, when there is one
    std::string why;    // otherwise what made no sense
};

class PickleMachine {
public:
    explicit PickleMachine(std::string_view code) : m_code(code) {}

    std::optional<ValuePtr> run(Refusal& refusal)
    {
        m_refusal = &refusal;
        while (m_at < m_code.size()) {
            uint8_t op = uint8_t(m_code[m_at++]);
            if (!step(op))
                return std::nullopt;
            if (op == '.') {
                if (m_stack.empty()) {
                    corrupt("its pickle stops with nothing made");
                    return std::nullopt;
                }
                return m_stack.back();
            }
        }
        corrupt("its pickle ends without a stop");
        return std::nullopt;
    }

private:
    bool corrupt(std::string why)
    {
        if (m_refusal->why.empty() && m_refusal->what.empty())
            m_refusal->why = std::move(why);
        return false;
    }
    bool foreign(std::string what)
    {
        m_refusal->what = std::move(what);
        return false;
    }
    bool take(size_t n, std::string_view& out)
    {
        if (m_code.size() - m_at < n)
            return false;
        out = m_code.substr(m_at, n);
        m_at += n;
        return true;
    }
    std::optional<uint64_t> number(int n)
    {
        std::string_view b;
        if (!take(size_t(n), b))
            return std::nullopt;
        return le(b, 0, n);
    }
    ValuePtr pop()
    {
        if (m_stack.empty())
            return nullptr;
        auto v = m_stack.back();
        m_stack.pop_back();
        return v;
    }
    // The items above the last mark, which is removed.
    std::optional<std::vector<ValuePtr>> popToMark()
    {
        for (size_t i = m_stack.size(); i-- > 0;)
            if (m_stack[i]->kind == Value::Kind::mark) {
                std::vector<ValuePtr> items(m_stack.begin() + long(i) + 1, m_stack.end());
                m_stack.resize(i);
                return items;
            }
        return std::nullopt;
    }
    bool push(ValuePtr v)
    {
        m_stack.push_back(std::move(v));
        return true;
    }
    bool pushInt(int64_t i)
    {
        auto v = make(Value::Kind::integer);
        v->integer = i;
        return push(v);
    }
    bool pushString(std::string_view s)
    {
        auto v = make(Value::Kind::string);
        v->text = s;
        return push(v);
    }
    bool pushTuple(std::vector<ValuePtr> items)
    {
        auto v = make(Value::Kind::tuple);
        v->items = std::move(items);
        return push(v);
    }
    bool global(std::string module, std::string name)
    {
        std::string full = module + "." + name;
        static const char* const known[] = {"collections.OrderedDict", "torch._utils._rebuild_tensor_v2",
            "torch.HalfStorage", "torch.FloatStorage"};
        for (const char* k : known)
            if (full == k) {
                auto v = make(Value::Kind::global);
                v->text = full;
                return push(v);
            }
        return foreign(full);
    }
    bool setItems(const ValuePtr& dict, const std::vector<ValuePtr>& kv)
    {
        if (!dict || dict->kind != Value::Kind::dict || kv.size() % 2)
            return corrupt("its pickle sets items on something that is not a dictionary");
        for (size_t i = 0; i < kv.size(); i += 2)
            dict->dict.emplace_back(kv[i], kv[i + 1]);
        return true;
    }
    bool persistentId(const ValuePtr& id)
    {
        // ("storage", <storage class>, key, location, element count)
        if (!id || id->kind != Value::Kind::tuple || id->items.size() < 5 || id->items[0]->text != "storage"
            || id->items[1]->kind != Value::Kind::global || id->items[2]->kind != Value::Kind::string)
            return corrupt("its pickle names a stored object that is not a tensor's storage");
        auto s = make(Value::Kind::storage);
        s->half = id->items[1]->text == "torch.HalfStorage";
        if (!s->half && id->items[1]->text != "torch.FloatStorage")
            return foreign(id->items[1]->text);
        s->text = id->items[2]->text;
        return push(s);
    }
    bool reduce(const ValuePtr& callable, const ValuePtr& args)
    {
        if (!callable || !args || callable->kind != Value::Kind::global || args->kind != Value::Kind::tuple)
            return corrupt("its pickle calls something that is not a known function");
        if (callable->text == "collections.OrderedDict") {
            if (!args->items.empty())
                return corrupt("its pickle builds an ordered dictionary from arguments");
            return push(make(Value::Kind::dict));
        }
        if (callable->text == "torch._utils._rebuild_tensor_v2") {
            // (storage, offset, size, stride, requires_grad, hooks[, metadata])
            auto& a = args->items;
            if (a.size() < 4 || a[0]->kind != Value::Kind::storage || a[1]->kind != Value::Kind::integer
                || a[2]->kind != Value::Kind::tuple || a[3]->kind != Value::Kind::tuple
                || a[2]->items.size() != a[3]->items.size())
                return corrupt("a tensor in its pickle is described in a way PyTorch never writes");
            for (size_t i = 4; i < a.size(); ++i)
                if (a[i]->kind == Value::Kind::dict && !a[i]->dict.empty())
                    return corrupt("a tensor in its pickle carries hooks or extra state");
            auto t = make(Value::Kind::tensor);
            t->storage = a[0];
            t->integer = a[1]->integer;
            t->items = {a[2], a[3]};
            for (auto& n : a[2]->items)
                if (n->kind != Value::Kind::integer)
                    return corrupt("a tensor in its pickle has a size that is not a whole number");
            for (auto& n : a[3]->items)
                if (n->kind != Value::Kind::integer)
                    return corrupt("a tensor in its pickle has a stride that is not a whole number");
            return push(t);
        }
        return foreign(callable->text);
    }

    bool step(uint8_t op)
    {
        std::string_view b;
        switch (op) {
        case 0x80: // PROTO
            return number(1) ? true : corrupt("its pickle is cut short");
        case 0x95: // FRAME
            return number(8) ? true : corrupt("its pickle is cut short");
        case '}': return push(make(Value::Kind::dict));
        case ']': return push(make(Value::Kind::list));
        case ')': return pushTuple({});
        case '(': return push(make(Value::Kind::mark));
        case 'N': return push(make(Value::Kind::none));
        case 0x88:
        case 0x89: {
            auto v = make(Value::Kind::boolean);
            v->integer = op == 0x88;
            return push(v);
        }
        case 'J': {
            auto n = number(4);
            return n ? pushInt(int32_t(uint32_t(*n))) : corrupt("its pickle is cut short");
        }
        case 'K': {
            auto n = number(1);
            return n ? pushInt(int64_t(*n)) : corrupt("its pickle is cut short");
        }
        case 'M': {
            auto n = number(2);
            return n ? pushInt(int64_t(*n)) : corrupt("its pickle is cut short");
        }
        case 0x8a: { // LONG1: little-endian two's complement
            auto n = number(1);
            if (!n || *n > 8 || !take(size_t(*n), b))
                return corrupt("its pickle holds a number too large for a model's sizes");
            uint64_t v = *n ? le(b, 0, int(*n)) : 0;
            if (*n && *n < 8 && (uint8_t(b[*n - 1]) & 0x80))
                v |= ~uint64_t(0) << (8 * *n);
            return pushInt(int64_t(v));
        }
        case 'G': {
            if (!take(8, b))
                return corrupt("its pickle is cut short");
            uint64_t bits = 0;
            for (char c : b)
                bits = (bits << 8) | uint8_t(c);
            auto v = make(Value::Kind::real);
            std::memcpy(&v->real, &bits, 8);
            return push(v);
        }
        case 'X': {
            auto n = number(4);
            return n && take(size_t(*n), b) ? pushString(b) : corrupt("its pickle is cut short");
        }
        case 0x8c: {
            auto n = number(1);
            return n && take(size_t(*n), b) ? pushString(b) : corrupt("its pickle is cut short");
        }
        case 'c': { // GLOBAL "module\nname\n"
            size_t nl1 = m_code.find('\n', m_at);
            size_t nl2 = nl1 == std::string_view::npos ? nl1 : m_code.find('\n', nl1 + 1);
            if (nl2 == std::string_view::npos)
                return corrupt("its pickle is cut short");
            std::string module(m_code.substr(m_at, nl1 - m_at)), name(m_code.substr(nl1 + 1, nl2 - nl1 - 1));
            m_at = nl2 + 1;
            return global(module, name);
        }
        case 0x93: { // STACK_GLOBAL
            auto name = pop(), module = pop();
            if (!name || !module || name->kind != Value::Kind::string || module->kind != Value::Kind::string)
                return corrupt("its pickle names a class without a name");
            return global(module->text, name->text);
        }
        case 'q':
        case 'r':
        case 0x94: {
            std::optional<uint64_t> key = op == 0x94 ? std::optional<uint64_t>(m_memo.size()) : number(op == 'q' ? 1 : 4);
            if (!key || m_stack.empty())
                return corrupt("its pickle is cut short");
            m_memo[*key] = m_stack.back();
            return true;
        }
        case 'h':
        case 'j': {
            auto key = number(op == 'h' ? 1 : 4);
            if (!key || !m_memo.contains(*key))
                return corrupt("its pickle refers to something it never stored");
            return push(m_memo[*key]);
        }
        case 't': {
            auto items = popToMark();
            return items ? pushTuple(std::move(*items)) : corrupt("its pickle builds a tuple without a mark");
        }
        case 0x85:
        case 0x86:
        case 0x87: {
            size_t n = op - 0x84u;
            if (m_stack.size() < n)
                return corrupt("its pickle builds a tuple from nothing");
            std::vector<ValuePtr> items(m_stack.end() - long(n), m_stack.end());
            m_stack.resize(m_stack.size() - n);
            return pushTuple(std::move(items));
        }
        case 'Q': return persistentId(pop());
        case 'R': {
            auto args = pop();
            auto callable = pop();
            return reduce(callable, args);
        }
        case 's': {
            auto v = pop(), k = pop();
            if (!k || m_stack.empty())
                return corrupt("its pickle sets an item on nothing");
            return setItems(m_stack.back(), {k, v});
        }
        case 'u': {
            auto kv = popToMark();
            if (!kv || m_stack.empty())
                return corrupt("its pickle sets items without a mark");
            return setItems(m_stack.back(), *kv);
        }
        case 'a': {
            auto v = pop();
            if (!v || m_stack.empty() || m_stack.back()->kind != Value::Kind::list)
                return corrupt("its pickle appends to something that is not a list");
            m_stack.back()->items.push_back(v);
            return true;
        }
        case 'e': {
            auto items = popToMark();
            if (!items || m_stack.empty() || m_stack.back()->kind != Value::Kind::list)
                return corrupt("its pickle appends to something that is not a list");
            for (auto& v : *items)
                m_stack.back()->items.push_back(v);
            return true;
        }
        case 'b': { // BUILD: a state dict's version notes ride on it; they are not needed
            auto state = pop();
            if (!state || m_stack.empty() || m_stack.back()->kind != Value::Kind::dict
                || (state->kind != Value::Kind::dict && state->kind != Value::Kind::none))
                return corrupt("its pickle sets the state of something that is not a dictionary");
            return true;
        }
        case '.': return true;
        default: {
            char code[8];
            std::snprintf(code, sizeof code, "0x%02x", op);
            return corrupt(std::string("its pickle uses an instruction (") + code + ") a saved model never holds");
        }
        }
    }

    std::string_view m_code;
    size_t m_at = 0;
    std::vector<ValuePtr> m_stack;
    std::map<uint64_t, ValuePtr> m_memo;
    Refusal* m_refusal = nullptr;
};

const Value* entry(const Value& dict, std::string_view key)
{
    for (auto& [k, v] : dict.dict)
        if (k->kind == Value::Kind::string && k->text == key)
            return v.get();
    return nullptr;
}

} // namespace

float halfToFloat(uint16_t h)
{
    uint32_t sign = uint32_t(h & 0x8000) << 16, exp = (h >> 10) & 0x1f, mant = h & 0x3ff, bits;
    if (exp == 0x1f)
        bits = sign | 0x7f800000u | (mant << 13);
    else if (exp)
        bits = sign | ((exp + 112) << 23) | (mant << 13);
    else if (!mant)
        bits = sign;
    else { // subnormal: normalise
        exp = 113;
        while (!(mant & 0x400)) {
            mant <<= 1;
            --exp;
        }
        bits = sign | (exp << 23) | ((mant & 0x3ff) << 13);
    }
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

Result<Checkpoint> readCheckpoint(const std::filesystem::path& path)
{
    std::string name = path.filename().string();
    auto unusable = [&](const std::string& why, Error::Kind kind = Error::Kind::corrupt) {
        return fail("The Whisper model file " + name + " could not be used: " + why
                + ". It was left as it is; downloading the model again replaces it.",
            kind);
    };
    auto mapped = MappedFile::open(path);
    if (!mapped)
        return fail("The Whisper model file " + path.string() + " could not be read ("
                + mapped.error().sentence + "). Nothing was changed; download the model again.",
            mapped.error().kind);
    std::string why;
    auto zip = readZip((*mapped)->bytes(), why);
    if (!zip)
        return unusable(why);
    std::string prefix;
    for (auto& [entryName, bytes] : *zip)
        if (entryName.ends_with("/data.pkl") && entryName.find('/') == entryName.size() - 9)
            prefix = entryName.substr(0, entryName.size() - 8);
    if (prefix.empty())
        return unusable("it holds no pickled state dict (data.pkl)");
    if (auto order = zip->find(prefix + "byteorder"); order != zip->end() && order->second != "little")
        return unusable("its tensors are stored big-endian");

    Refusal refusal;
    auto root = PickleMachine(zip->at(prefix + "data.pkl")).run(refusal);
    if (!refusal.what.empty())
        return fail("The Whisper model file " + name + " asks to run \u201c" + refusal.what
                + "\u201d while loading, which a model's weights never need, so Plim stopped reading it and ran "
                  "nothing. The file was left as it is; delete it and download the model again from its usual source.",
            Error::Kind::refused);
    if (!root)
        return unusable(refusal.why.empty() ? "its pickle makes no sense" : refusal.why);
    const Value* dims = (*root)->kind == Value::Kind::dict ? entry(**root, "dims") : nullptr;
    const Value* state = (*root)->kind == Value::Kind::dict ? entry(**root, "model_state_dict") : nullptr;
    if (!dims || !state || dims->kind != Value::Kind::dict || state->kind != Value::Kind::dict)
        return unusable("it is not an OpenAI Whisper checkpoint (no \u201cdims\u201d and \u201cmodel_state_dict\u201d)");

    Checkpoint out;
    for (auto& [k, v] : dims->dict)
        if (k->kind == Value::Kind::string && v->kind == Value::Kind::integer)
            out.dims[k->text] = v->integer;
    for (auto& [k, v] : state->dict) {
        if (k->kind != Value::Kind::string || v->kind != Value::Kind::tensor)
            return unusable("its state dict holds something other than named tensors");
        const Value& s = *v->storage;
        auto bytes = zip->find(prefix + "data/" + s.text);
        if (bytes == zip->end())
            return unusable("the storage of " + k->text + " is missing");
        size_t elem = s.half ? 2 : 4, available = bytes->second.size() / elem;
        Tensor t;
        size_t count = 1;
        int64_t last = v->integer; // the furthest element the view reaches
        for (size_t i = 0; i < v->items[0]->items.size(); ++i) {
            int64_t n = v->items[0]->items[i]->integer, stride = v->items[1]->items[i]->integer;
            if (n < 0 || stride < 0 || (n && count > (size_t(1) << 34) / size_t(n)))
                return unusable("the tensor " + k->text + " has an impossible size");
            t.shape.push_back(n);
            count *= size_t(n);
            if (n)
                last += (n - 1) * stride;
        }
        if (v->integer < 0 || (count && size_t(last) >= available))
            return unusable("the tensor " + k->text + " reaches past its storage (the file looks damaged)");
        t.data.resize(count);
        const char* base = bytes->second.data();
        bool contiguous = true;
        for (int64_t d = int64_t(t.shape.size()) - 1, expect = 1; d >= 0; --d) {
            contiguous = contiguous && (t.shape[size_t(d)] == 1 || v->items[1]->items[size_t(d)]->integer == expect);
            expect *= t.shape[size_t(d)];
        }
        if (contiguous) {
            const char* from = base + size_t(v->integer) * elem;
            if (s.half)
                for (size_t i = 0; i < count; ++i) {
                    uint16_t h;
                    std::memcpy(&h, from + i * 2, 2);
                    t.data[i] = halfToFloat(h);
                }
            else
                std::memcpy(t.data.data(), from, count * 4);
            out.weights[k->text] = std::move(t);
            continue;
        }
        std::vector<int64_t> index(t.shape.size(), 0);
        for (size_t i = 0; i < count; ++i) {
            int64_t at = v->integer;
            for (size_t d = 0; d < index.size(); ++d)
                at += index[d] * v->items[1]->items[d]->integer;
            if (s.half) {
                uint16_t h;
                std::memcpy(&h, base + size_t(at) * 2, 2);
                t.data[i] = halfToFloat(h);
            } else
                std::memcpy(&t.data[i], base + size_t(at) * 4, 4);
            for (size_t d = index.size(); d-- > 0;) {
                if (++index[d] < t.shape[d])
                    break;
                index[d] = 0;
            }
        }
        out.weights[k->text] = std::move(t);
    }
    return out;
}

} // namespace plim::whisper
