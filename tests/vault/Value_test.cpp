#include <gtest/gtest.h>

#include "vault/Value.h"

using namespace qv;

TEST(Value, ArraysAndDictionariesAreSharedByReference) {
    Value a = Value::newDict();
    Value b = a;
    (*b.toDict())["k"] = Value(3);
    EXPECT_EQ(QVDictGet(*a.toDict(), "k").toInt(), 3);
    EXPECT_TRUE(a.equals(b, false));
    EXPECT_FALSE(Value::newDict().equals(Value::newDict(), false));
    EXPECT_TRUE(Value::newDict().equals(Value::newDict(), true));
}

TEST(Value, WeakReferenceReadsNullOnceTheObjectIsGone) {
    struct O : Object {
        std::string className() const override { return "O"; }
    };
    auto o = std::make_shared<O>();
    Value w = Value::weak(o);
    EXPECT_FALSE(w.isNull());
    EXPECT_EQ(w.as<O>(), o);
    o.reset();
    EXPECT_TRUE(w.isNull());
}

TEST(Value, DataKeysAndStringKeysDiffer) {
    Dict d;
    d[DictKey(Bytes{'a'})] = Value(1);
    d[DictKey("a")] = Value(2);
    EXPECT_EQ(d.size(), 2u);
    EXPECT_EQ(QVDictGet(d, Bytes{'a'}).toInt(), 1);
}
