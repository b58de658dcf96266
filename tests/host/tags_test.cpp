// Tag groups: paths with ':' between levels, lists, typed values, and the tag
// host functions the module calls.
#include <gtest/gtest.h>

#include "host/host.hpp"
#include "support/host_support.hpp"
#include "sdk/kix_host_abi.h"

namespace {

using namespace kixhost;
using Tok = KixObject*;

Tok tok(const Object* o) { return reinterpret_cast<Tok>(const_cast<Object*>(o)); }
ObjectPtr adopt(Tok t) { return ObjectPtr::adopt(reinterpret_cast<Object*>(t)); }
TagGroup& tags(Tok t) { return *static_cast<TagGroup*>(reinterpret_cast<Object*>(t)); }

TEST(TagGroupPaths, SetMakesTheGroupsOnTheWayAndReplacesValues) {
    TagGroupPtr g = TagGroupPtr::adopt(new TagGroup());
    g->set("Microscope:Optics:Voltage", 300.0);
    g->set("Microscope:Name", std::string("TEM"));
    g->set("Count", std::int32_t(3));
    ASSERT_EQ(g->tags.size(), 2u);
    EXPECT_EQ(g->tags[0].label, "Microscope");
    const auto& mic = *std::get<TagGroupPtr>(g->tags[0].value);
    ASSERT_EQ(mic.tags.size(), 2u);
    EXPECT_EQ(mic.tags[0].label, "Optics");
    EXPECT_EQ(mic.tags[1].label, "Name");
    EXPECT_EQ(std::get<double>(*g->get("Microscope:Optics:Voltage")), 300.0);
    g->set("Microscope:Optics:Voltage", std::int32_t(200));  // replaced, not added
    EXPECT_EQ(std::get<std::int32_t>(*g->get("Microscope:Optics:Voltage")), 200);
    EXPECT_EQ(std::get<TagGroupPtr>(mic.tags[0].value)->tags.size(), 1u);
    // "[n]" is the n-th tag of a level.
    EXPECT_EQ(std::get<std::string>(*g->get("[0]:[1]")), "TEM");
    g->set("[1]", std::int32_t(4));
    EXPECT_EQ(std::get<std::int32_t>(*g->get("Count")), 4);
    EXPECT_EQ(g->get("Microscope:Missing"), nullptr);
    EXPECT_EQ(g->get("Count:Below"), nullptr);
    EXPECT_EQ(g->get("[7]"), nullptr);
    EXPECT_THROW(g->set("Count:Below", 1.0), std::invalid_argument);  // Count is not a group
    EXPECT_THROW(g->set("a::b", 1.0), std::invalid_argument);
    EXPECT_THROW(g->set("[9]", 1.0), std::invalid_argument);
    EXPECT_THROW(g->set("", 1.0), std::invalid_argument);
}

class TagFunctions : public kixtest::HostFunctions {
protected:
    static ObjectPtr str(const std::string& s) { return adopt(new_string(s)); }
    static std::string text(Tok s) { return static_cast<String*>(reinterpret_cast<Object*>(s))->text; }
};

TEST_F(TagFunctions, SetCountAndReadBackAsText) {
    auto new_group = fn<Tok (*)()>("TagGroup NewTagGroup(  )");
    auto set_long = fn<void (*)(Tok, Tok, std::int32_t)>("void TagGroupSetTagAsLong( TagGroup, string, long )");
    auto set_double = fn<void (*)(Tok, Tok, double)>("void TagGroupSetTagAsDouble( TagGroup, string, double )");
    auto set_string = fn<void (*)(Tok, Tok, Tok)>("void TagGroupSetTagAsString( TagGroup, string, dm_string )");
    auto count = fn<std::int32_t (*)(Tok)>("long TagGroupCountTags( TagGroup )");
    auto as_string = fn<bool (*)(Tok, Tok, Tok*)>("Boolean TagGroupGetTagAsString( TagGroup, string, dm_string * )");

    ObjectPtr g = adopt(new_group());
    ASSERT_EQ(g->kind(), Object::Kind::TagGroup);
    EXPECT_FALSE(static_cast<TagGroup&>(*g).is_list);
    // Exactly what the trace-counter reader writes: "name:Ticks" and "name:Count".
    set_double(tok(g.get()), tok(str("kix__GetVersionDM:Ticks").get()), 0.25);
    set_long(tok(g.get()), tok(str("kix__GetVersionDM:Count").get()), 2);
    set_string(tok(g.get()), tok(str("Name").get()), tok(str("kix").get()));
    EXPECT_EQ(count(tok(g.get())), 2);
    const TagGroup& tg = static_cast<TagGroup&>(*g);
    EXPECT_EQ(std::get<double>(*tg.get("kix__GetVersionDM:Ticks")), 0.25);
    EXPECT_EQ(std::get<std::int32_t>(*tg.get("kix__GetVersionDM:Count")), 2);

    Tok out = nullptr;
    EXPECT_TRUE(as_string(tok(g.get()), tok(str("Name").get()), &out));
    EXPECT_EQ(text(out), "kix");
    EXPECT_TRUE(as_string(tok(g.get()), tok(str("kix__GetVersionDM:Count").get()), &out));  // replaces, releasing the old
    EXPECT_EQ(text(out), "2");
    EXPECT_TRUE(as_string(tok(g.get()), tok(str("kix__GetVersionDM:Ticks").get()), &out));
    EXPECT_EQ(text(out), "0.25");
    EXPECT_FALSE(as_string(tok(g.get()), tok(str("kix__GetVersionDM").get()), &out));  // a group, not text
    EXPECT_FALSE(as_string(tok(g.get()), tok(str("Nothing").get()), &out));
    EXPECT_EQ(text(out), "0.25");  // untouched on failure
    adopt(out);
    ImagePtr im = host_->new_image(kFloat32, {1});
    EXPECT_THROW(count(tok(im.get())), std::invalid_argument);
}

TEST_F(TagFunctions, ListsInsertionAndIndexedGroups) {
    auto new_list = fn<Tok (*)()>("TagGroup NewTagList(  )");
    auto new_group = fn<Tok (*)()>("TagGroup NewTagGroup(  )");
    auto insert = fn<void (*)(Tok, std::int32_t, Tok)>("void TagGroupInsertTagAsTagGroup( TagGroup, long, TagGroup )");
    auto indexed = fn<bool (*)(Tok, std::int32_t, Tok*)>(
        "Boolean TagGroupGetIndexedTagAsTagGroup( TagGroup, long, TagGroup * )");
    ObjectPtr list = adopt(new_list());
    EXPECT_TRUE(tags(tok(list.get())).is_list);
    ObjectPtr a = adopt(new_group()), b = adopt(new_group()), c = adopt(new_group());
    insert(tok(list.get()), -1, tok(a.get()));   // append
    insert(tok(list.get()), 99, tok(b.get()));   // past the end: append
    insert(tok(list.get()), 0, tok(c.get()));    // before the first
    const TagGroup& l = tags(tok(list.get()));
    ASSERT_EQ(l.tags.size(), 3u);
    EXPECT_EQ(std::get<TagGroupPtr>(l.tags[0].value).get(), c.get());
    EXPECT_EQ(std::get<TagGroupPtr>(l.tags[1].value).get(), a.get());
    EXPECT_EQ(std::get<TagGroupPtr>(l.tags[2].value).get(), b.get());
    EXPECT_EQ(a->refs(), 2);  // held by the list itself, not copied
    EXPECT_THROW(insert(tok(list.get()), 0, tok(list.get())), std::invalid_argument);

    Tok out = nullptr;
    EXPECT_TRUE(indexed(tok(list.get()), 1, &out));
    EXPECT_EQ(reinterpret_cast<Object*>(out), a.get());
    EXPECT_EQ(a->refs(), 3);
    adopt(out);
    out = nullptr;
    EXPECT_FALSE(indexed(tok(list.get()), 3, &out));
    EXPECT_FALSE(indexed(tok(list.get()), -1, &out));
    tags(tok(list.get())).tags.push_back({"", std::int32_t(5)});
    EXPECT_FALSE(indexed(tok(list.get()), 3, &out));  // a number, not a group
    EXPECT_EQ(out, nullptr);
}

TEST_F(TagFunctions, CopyTagsFromIsDeepAndReplacesByLabel) {
    auto copy = fn<void (*)(Tok, Tok)>("void TagGroupCopyTagsFrom( TagGroup, TagGroup )");
    TagGroupPtr src = host_->new_tag_group(), dst = host_->new_tag_group();
    src->set("A:B", std::int32_t(1));
    src->set("C", std::string("c"));
    dst->set("C", std::string("old"));
    dst->set("D", 4.0);
    copy(tok(dst.get()), tok(src.get()));
    ASSERT_EQ(dst->tags.size(), 3u);
    EXPECT_EQ(std::get<std::string>(*dst->get("C")), "c");
    EXPECT_EQ(std::get<double>(*dst->get("D")), 4.0);
    EXPECT_EQ(std::get<std::int32_t>(*dst->get("A:B")), 1);
    src->set("A:B", std::int32_t(2));  // the copy is its own
    EXPECT_EQ(std::get<std::int32_t>(*dst->get("A:B")), 1);
    EXPECT_NE(std::get<TagGroupPtr>(*dst->get("A")).get(), std::get<TagGroupPtr>(*src->get("A")).get());

    TagGroupPtr l1 = host_->new_tag_group(true), l2 = host_->new_tag_group(true);
    l1->tags.push_back({"", std::int32_t(1)});
    l2->tags.push_back({"", std::int32_t(2)});
    copy(tok(l1.get()), tok(l2.get()));
    ASSERT_EQ(l1->tags.size(), 2u);  // lists append
    EXPECT_EQ(std::get<std::int32_t>(l1->tags[1].value), 2);
}

}  // namespace
