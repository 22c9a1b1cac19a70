package io.vtq.tika.kln;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.util.Map;

import org.apache.tika.config.TikaConfig;
import org.apache.tika.io.TikaInputStream;
import org.apache.tika.metadata.Metadata;
import org.apache.tika.metadata.TikaCoreProperties;
import org.apache.tika.mime.MediaType;
import org.apache.tika.parser.CompositeParser;
import org.apache.tika.parser.ParseContext;
import org.apache.tika.parser.Parser;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.api.Test;

/** Tika finds the type and the parser with no configuration, and takes the parser's parameters. */
class KlnRegistrationTest {
    private static final byte[] HEADER = "\u0004\u0002\0\0RVZT\0\0\0\0".getBytes(StandardCharsets.ISO_8859_1);

    @ParameterizedTest
    @CsvSource({
        "header, , application/x-kln",        // the signature alone, no name
        "header, doc.bin, application/x-kln",  // the signature beats a name that says nothing
        "empty, doc.kln, application/x-kln",   // the name alone
        "other, , text/plain",                 // neither
    })
    void detects(String content, String name, String expected) throws Exception {
        byte[] bytes = switch (content) {
            case "header" -> HEADER;
            case "other" -> "RVZ plain text".getBytes(StandardCharsets.US_ASCII);
            default -> new byte[0];
        };
        Metadata metadata = new Metadata();
        if (name != null) metadata.set(TikaCoreProperties.RESOURCE_NAME_KEY, name);
        try (InputStream in = TikaInputStream.get(bytes)) {
            assertEquals(expected, TikaConfig.getDefaultConfig().getDetector().detect(in, metadata).toString());
        }
    }

    @Test
    void defaultParserRoutesTheTypeToTheParser() {
        Map<MediaType, Parser> parsers = ((CompositeParser) TikaConfig.getDefaultConfig().getParser()).getParsers();
        assertInstanceOf(KlnParser.class, parsers.get(KlnParser.KLN));
    }

    @Test
    void takesItsParametersFromTikaConfig() throws Exception {
        try (InputStream xml = getClass().getResourceAsStream("tika-config.xml")) {
            CompositeParser parser = (CompositeParser) new TikaConfig(xml).getParser();
            KlnParser kln = (KlnParser) parser.getParsers(new ParseContext()).get(KlnParser.KLN);
            assertEquals("/opt/kln/bin/kln2txt", kln.getKln2txtPath());
            assertTrue(kln.getSupportedTypes(new ParseContext()).contains(KlnParser.KLN));
        }
    }
}
