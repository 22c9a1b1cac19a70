package io.vtq.tika.kln;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Arrays;
import java.util.List;

import org.apache.tika.exception.TikaException;
import org.apache.tika.exception.ZeroByteFileException;
import org.apache.tika.io.TikaInputStream;
import org.apache.tika.metadata.Metadata;
import org.apache.tika.metadata.Office;
import org.apache.tika.metadata.TikaCoreProperties;
import org.apache.tika.parser.AutoDetectParser;
import org.apache.tika.parser.ParseContext;
import org.apache.tika.parser.Parser;
import org.apache.tika.parser.RecursiveParserWrapper;
import org.apache.tika.sax.BasicContentHandlerFactory;
import org.apache.tika.sax.RecursiveParserWrapperHandler;
import org.apache.tika.sax.ToXMLContentHandler;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The parser as Tika runs it (service-loaded, kln2txt from -DKLN2TXT) over the sample documents. */
class KlnParserTest {
    private static final AutoDetectParser AUTO = new AutoDetectParser();

    @BeforeAll
    static void requireKln2txt() {
        Samples.requireKln2txt();
    }

    private static Metadata named(String name) {
        Metadata metadata = new Metadata();
        metadata.set(TikaCoreProperties.RESOURCE_NAME_KEY, name);
        return metadata;
    }

    /** The XHTML the parser gives, without the layout whitespace between elements. */
    private static String xhtml(Parser parser, InputStream in, Metadata metadata) throws Exception {
        ToXMLContentHandler handler = new ToXMLContentHandler();
        parser.parse(in, handler, metadata, new ParseContext());
        return compact(handler.toString());
    }

    private static String compact(String xml) {
        return xml.replaceAll("\\s+<", "<");
    }

    @ParameterizedTest(name = "{0} by path {1}")
    @CsvSource(delimiter = '|', value = {
        "letter    | true  | 新年のご挨拶 / New Year greetings | 佐藤 花子   | 挨拶状, letter, 2019 | correspondence | 1.0 | <p>Dear Mr. Brown,</p>",
        "letter    | false | 新年のご挨拶 / New Year greetings | 佐藤 花子   | 挨拶状, letter, 2019 | correspondence | 1.0 | <p>株式会社ロンドン商事</p>",
        "budget    | true  | 2018年度 第1四半期 予算           | 経理部 鈴木 | 予算, budget, Q1     | finance        | 3   | 光熱費",
        "notice    | true  | 大阪会議のご案内 / Osaka meeting notice | 営業部 | 会議, meeting, Osaka | notice        | 2   | <p>See the floor plan and the checklist below.</p>",
        "addresses | false | 住所録 / Address book             | 営業部 佐藤 | 住所録, addresses, 年賀状 | address book | 7 | 京都府京都市左京区3-3",
    })
    void samples(String sample, boolean byPath, String title, String creator, String keywords, String docClass,
                 String version, String fragment) throws Exception {
        Metadata metadata = named(sample + ".kln");
        String xml;
        try (InputStream in = byPath ? TikaInputStream.get(Samples.path(sample))
                : new ByteArrayInputStream(Samples.bytes(sample))) {
            xml = xhtml(AUTO, in, metadata);
        }
        assertEquals("application/x-kln", metadata.get(Metadata.CONTENT_TYPE));
        assertEquals(title, metadata.get(TikaCoreProperties.TITLE));
        assertEquals(creator, metadata.get(TikaCoreProperties.CREATOR));
        assertEquals(keywords, metadata.get(Office.KEYWORDS));
        assertEquals(docClass, metadata.get(KlnContent.CLASS));
        assertEquals(version, metadata.get(KlnContent.VERSION));
        assertTrue(metadata.get(TikaCoreProperties.DESCRIPTION).contains("("));
        assertTrue(xml.contains("<title>" + title + "</title>"), xml);
        assertTrue(xml.contains(fragment), xml);
        assertFalse(xml.contains("<p></p>"), xml);
    }

    @Test
    void tablesAreXhtmlTables() throws Exception {
        String budget = xhtml(AUTO, TikaInputStream.get(Samples.path("budget")), new Metadata());
        String addresses = xhtml(AUTO, TikaInputStream.get(Samples.path("addresses")), new Metadata());
        assertTrue(budget.contains("<tr><td>費目</td><td>予算</td>"), budget);
        assertFalse(budget.contains("<th>"), budget);
        assertTrue(addresses.contains("<tr><th>氏名</th><th>会社</th>"), addresses);
        assertTrue(addresses.contains("<td>John Brown</td><td>London Trading</td>"), addresses);
    }

    @Test
    void embeddedObjectsAreEntriesOfTheirOwn() throws Exception {
        List<Metadata> entries = recursive(Samples.path("notice"), -1);
        Metadata notice = entries.get(0);
        String content = notice.get(TikaCoreProperties.TIKA_CONTENT);
        assertTrue(content.contains("See the floor plan"), content);
        assertTrue(content.contains("Venue: Osaka International Convention Center"), content);
        assertTrue(content.contains("Bring: business cards"), content);
        assertEquals(3, entries.size());
        for (int i = 1; i <= 2; i++) {
            Metadata object = entries.get(i);
            assertEquals("/object" + i, object.get(TikaCoreProperties.EMBEDDED_RESOURCE_PATH));
            assertTrue(Integer.parseInt(object.get(Metadata.CONTENT_LENGTH)) > 512);
            assertNull(object.get(TikaCoreProperties.EMBEDDED_EXCEPTION));
        }
    }

    @Test
    void aWriteLimitTruncatesTheContentWithoutAnError() throws Exception {
        Metadata letter = recursive(Samples.path("letter"), 30).get(0);
        assertEquals("true", letter.get(TikaCoreProperties.WRITE_LIMIT_REACHED));
        assertTrue(letter.get(TikaCoreProperties.TIKA_CONTENT).length() <= 30);
        assertEquals("1.0", letter.get(KlnContent.VERSION));
    }

    private static List<Metadata> recursive(Path document, int writeLimit) throws Exception {
        RecursiveParserWrapper wrapper = new RecursiveParserWrapper(AUTO);
        RecursiveParserWrapperHandler handler = new RecursiveParserWrapperHandler(
                new BasicContentHandlerFactory(BasicContentHandlerFactory.HANDLER_TYPE.TEXT, writeLimit));
        try (TikaInputStream in = TikaInputStream.get(document)) {
            wrapper.parse(in, handler, new Metadata(), new ParseContext());
        }
        return handler.getMetadataList();
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource(delimiter = '|', value = {
        "damaged | damaged document",  // the letter cut off after its header
        "foreign | not a KLN document",
        "refused | refused",           // the notice with objects refused
    })
    void failedDocumentsFailTheirParse(String kind, String message) throws Exception {
        byte[] bytes = switch (kind) {
            case "damaged" -> Arrays.copyOf(Samples.bytes("letter"), 600);
            case "foreign" -> "a plain text that only has the name".getBytes(StandardCharsets.US_ASCII);
            default -> Samples.bytes("notice");
        };
        KlnParser parser = new KlnParser();
        parser.setRefuseObjects(kind.equals("refused"));
        try (parser) {
            TikaException e = assertThrows(TikaException.class,
                    () -> xhtml(parser, TikaInputStream.get(bytes), named(kind + ".kln")));
            assertTrue(e.getMessage().contains(message), e.getMessage());
        }
    }

    @Test
    void anEmptyFileIsTikasZeroByteCase() {
        assertThrows(ZeroByteFileException.class,
                () -> xhtml(AUTO, TikaInputStream.get(new byte[0]), named("empty.kln")));
    }

    /** A worker that crashes or hangs fails its document only; the next document gets a new worker. */
    @Test
    void aCrashOrHangFailsOneDocumentAndTheWorkerIsReplaced(@TempDir Path dir) throws Exception {
        Path faulty = dir.resolve("kln2txt");
        Files.writeString(faulty, "#!/bin/sh\nexport KLN2TXT_TEST_FAULT=\"$(cat " + dir.resolve("fault") + ")\"\nexec "
                + Path.of(Samples.KLN2TXT).toAbsolutePath() + " \"$@\"\n");
        Files.setPosixFilePermissions(faulty, PosixFilePermissions.fromString("rwx------"));
        byte[] letter = Samples.bytes("letter");
        for (String fault : new String[] {"crash", "hang"}) {
            Files.writeString(dir.resolve("fault"), fault + ":" + fault + ".kln");  // read as a worker starts
            try (KlnParser parser = new KlnParser()) {
                parser.setKln2txtPath(faulty.toString());
                parser.setPoolSize(1);
                parser.setTimeoutMillis(1500);
                long start = System.nanoTime();
                TikaException e = assertThrows(TikaException.class,
                        () -> xhtml(parser, TikaInputStream.get(letter), named(fault + ".kln")));
                assertTrue(e.getMessage().contains(fault.equals("crash") ? "ended" : "did not answer"), e.getMessage());
                assertTrue(System.nanoTime() - start < 10_000_000_000L);
                assertTrue(xhtml(parser, TikaInputStream.get(letter), named("letter.kln")).contains("Dear Mr. Brown"));
            }
        }
    }
}
