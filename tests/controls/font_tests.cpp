#include "controls/embedded_font.h"

#include "test_support.h"

#include <gtest/gtest.h>

using namespace tessel::ui;
using tessel::com_ptr;

namespace {

struct font_resource {
    const void* bytes;
    DWORD size;
};

font_resource program_font_resource()
{
    const HMODULE module = ::GetModuleHandleW(nullptr);
    HRSRC found = ::FindResourceW(module, MAKEINTRESOURCEW(embedded_font_resource_id), MAKEINTRESOURCEW(8));
    if (!found)
        return {nullptr, 0};
    return {::LockResource(::LoadResource(module, found)), ::SizeofResource(module, found)};
}

details::font_resource_key program_key()
{
    return {reinterpret_cast<std::uint64_t>(::GetModuleHandleW(nullptr)),
            static_cast<std::uint64_t>(embedded_font_resource_id)};
}

}  // namespace

TEST(embedded_font, loaders_accept_only_sixteen_byte_keys)
{
    const com_ptr<IDWriteFontFileLoader> file_loader = details::make_font_file_loader();
    const com_ptr<IDWriteFontCollectionLoader> collection_loader =
        details::make_font_collection_loader(file_loader.get());
    const details::font_resource_key key = program_key();
    const unsigned char oversized[17] = {};

    for (UINT32 size : {0u, 8u, 15u, 17u}) {
        IDWriteFontFileStream* stream = reinterpret_cast<IDWriteFontFileStream*>(1);
        EXPECT_EQ(file_loader->CreateStreamFromKey(size == 17 ? static_cast<const void*>(oversized) : &key, size,
                                                   &stream),
                  E_INVALIDARG)
            << size;
        EXPECT_EQ(stream, nullptr);
        IDWriteFontFileEnumerator* enumerator = reinterpret_cast<IDWriteFontFileEnumerator*>(1);
        EXPECT_EQ(collection_loader->CreateEnumeratorFromKey(controls_tests::dwrite(), &key, size, &enumerator),
                  E_INVALIDARG)
            << size;
        EXPECT_EQ(enumerator, nullptr);
    }

    // Keys naming resources that cannot be had: a failing HRESULT and no stream, also when
    // the system leaves no last error behind.
    for (const details::font_resource_key unusable : {details::font_resource_key{key.module, 4711},
                                                       details::font_resource_key{0, 4711}}) {
        ::SetLastError(ERROR_SUCCESS);
        com_ptr<IDWriteFontFileStream> none;
        EXPECT_TRUE(FAILED(file_loader->CreateStreamFromKey(&unusable, sizeof unusable, none.put())));
        EXPECT_FALSE(none);
    }
    EXPECT_TRUE(FAILED(details::resource_load_failure(ERROR_SUCCESS)));
}

TEST(embedded_font, stream_points_at_the_resource_bytes)
{
    const font_resource resource = program_font_resource();
    ASSERT_NE(resource.bytes, nullptr) << "the test executable lacks RT_FONT 131";
    const com_ptr<IDWriteFontFileLoader> loader = details::make_font_file_loader();
    const details::font_resource_key key = program_key();
    com_ptr<IDWriteFontFileStream> stream;
    ASSERT_EQ(loader->CreateStreamFromKey(&key, sizeof key, stream.put()), S_OK);

    UINT64 size = 0;
    EXPECT_EQ(stream->GetFileSize(&size), S_OK);
    EXPECT_EQ(size, resource.size);
    // No copy: the fragment is the resource itself.
    const void* fragment = nullptr;
    void* context = nullptr;
    EXPECT_EQ(stream->ReadFileFragment(&fragment, 0, 4, &context), S_OK);
    EXPECT_EQ(fragment, resource.bytes);
    stream->ReleaseFileFragment(context);
    EXPECT_EQ(stream->ReadFileFragment(&fragment, size - 4, 4, &context), S_OK);
    EXPECT_EQ(fragment, static_cast<const BYTE*>(resource.bytes) + size - 4);
    // Past the end, and an offset + size that wraps around: refused.
    EXPECT_TRUE(FAILED(stream->ReadFileFragment(&fragment, size - 3, 4, &context)));
    EXPECT_EQ(fragment, nullptr);
    EXPECT_TRUE(FAILED(stream->ReadFileFragment(&fragment, 8, ~UINT64(0) - 4, &context)));
    EXPECT_TRUE(FAILED(stream->ReadFileFragment(&fragment, size + 1, 0, &context)));
    EXPECT_EQ(stream->ReadFileFragment(&fragment, size, 0, &context), S_OK);  // empty read at the end
}

TEST(embedded_font, fluent_family_is_found_in_the_custom_collection)
{
    const embedded_font_loaders loaders(controls_tests::dwrite());
    const com_ptr<IDWriteFontCollection> collection = loaders.program_font();
    ASSERT_TRUE(collection);
    EXPECT_EQ(collection->GetFontFamilyCount(), 1u);
    UINT32 index = 0;
    BOOL exists = FALSE;
    ASSERT_EQ(collection->FindFamilyName(embedded_font_family, &index, &exists), S_OK);
    ASSERT_TRUE(exists);

    com_ptr<IDWriteFontFamily> family;
    ASSERT_EQ(collection->GetFontFamily(index, family.put()), S_OK);
    com_ptr<IDWriteFont> font;
    ASSERT_EQ(family->GetFirstMatchingFont(DWRITE_FONT_WEIGHT_NORMAL, DWRITE_FONT_STRETCH_NORMAL,
                                           DWRITE_FONT_STYLE_NORMAL, font.put()),
              S_OK);
    // The tree's expander marks, and nothing the font does not draw.
    for (wchar_t c : {L'3', L'4', L'5', L'6', L'a', L'r'}) {
        BOOL has = FALSE;
        EXPECT_EQ(font->HasCharacter(c, &has), S_OK);
        EXPECT_TRUE(has) << char(c);
    }
    BOOL has_z = TRUE;
    font->HasCharacter(L'Z', &has_z);
    EXPECT_FALSE(has_z);

    // Another resource: a clear error, not a silently empty collection. The collection
    // resource 137 exists but is no font.
    try {
        (void)loaders.collection(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(4711));
        ADD_FAILURE() << "a missing font resource loaded";
    } catch (const fibra::details::hresult_error& e) {
        EXPECT_EQ(e.code(), tessel::hresult_from_win32(ERROR_RESOURCE_NAME_NOT_FOUND));
    }

    // The system's collection does not know it: the font is private to the program.
    com_ptr<IDWriteFontCollection> system;
    ASSERT_EQ(controls_tests::dwrite()->GetSystemFontCollection(system.put(), FALSE), S_OK);
    exists = TRUE;
    system->FindFamilyName(embedded_font_family, &index, &exists);
    EXPECT_FALSE(exists);

    // A text layout in that collection lays the glyph out with the font's own advance:
    // one em per glyph.
    com_ptr<IDWriteTextFormat> format;
    ASSERT_EQ(controls_tests::dwrite()->CreateTextFormat(embedded_font_family, collection.get(),
                                                         DWRITE_FONT_WEIGHT_NORMAL, DWRITE_FONT_STYLE_NORMAL,
                                                         DWRITE_FONT_STRETCH_NORMAL, 20.f, L"", format.put()),
              S_OK);
    com_ptr<IDWriteTextLayout> layout;
    ASSERT_EQ(controls_tests::dwrite()->CreateTextLayout(L"34", 2, format.get(), 500, 100, layout.put()), S_OK);
    DWRITE_TEXT_METRICS metrics{};
    ASSERT_EQ(layout->GetMetrics(&metrics), S_OK);
    EXPECT_NEAR(metrics.widthIncludingTrailingWhitespace, 40.f, 0.5f);
}
