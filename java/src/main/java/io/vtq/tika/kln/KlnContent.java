package io.vtq.tika.kln;

import com.fasterxml.jackson.databind.JsonNode;

import java.io.IOException;
import java.util.Base64;
import java.util.regex.Pattern;

import org.apache.tika.extractor.EmbeddedDocumentExtractor;
import org.apache.tika.extractor.EmbeddedDocumentUtil;
import org.apache.tika.io.TikaInputStream;
import org.apache.tika.metadata.Metadata;
import org.apache.tika.metadata.Office;
import org.apache.tika.metadata.Property;
import org.apache.tika.metadata.TikaCoreProperties;
import org.apache.tika.parser.ParseContext;
import org.apache.tika.sax.EmbeddedContentHandler;
import org.apache.tika.sax.XHTMLContentHandler;
import org.xml.sax.SAXException;

/** Turns a kln2txt --serve answer into Tika metadata and XHTML, embedded objects included. */
final class KlnContent {
    static final Property CLASS = Property.internalText("kln:class");
    static final Property VERSION = Property.internalText("kln:version");

    private static final Pattern LINE_END = Pattern.compile("\r\n|[\r\n]");

    private KlnContent() {
    }

    /** The document's properties; set before the XHTML starts so its head carries the title. */
    static void properties(JsonNode answer, Metadata metadata) {
        JsonNode p = answer.path("properties");
        set(metadata, TikaCoreProperties.TITLE, p.path("title"));
        set(metadata, TikaCoreProperties.CREATOR, p.path("author"));
        set(metadata, Office.KEYWORDS, p.path("keywords"));
        set(metadata, TikaCoreProperties.DESCRIPTION, p.path("description"));
        set(metadata, CLASS, p.path("class"));
        set(metadata, VERSION, p.path("version"));
        for (JsonNode warning : answer.path("warnings")) {
            metadata.add(TikaCoreProperties.TIKA_META_EXCEPTION_WARNING, warning.asText());
        }
    }

    private static void set(Metadata metadata, Property property, JsonNode value) {
        if (!value.asText().isEmpty()) metadata.set(property, value.asText());
    }

    /** The document body in document order: paragraphs, tables and embedded objects. */
    static void body(JsonNode answer, XHTMLContentHandler xhtml, ParseContext context)
            throws SAXException, IOException {
        JsonNode tables = answer.path("tables");
        EmbeddedDocumentExtractor extractor = null;
        for (JsonNode block : answer.path("blocks")) {
            switch (block.path("type").asText()) {
                case "text" -> paragraphs(block.path("text").asText(), xhtml);
                case "table" -> table(tables.path(block.path("table").asInt() - 1), xhtml);
                case "object" -> {
                    if (extractor == null) extractor = EmbeddedDocumentUtil.getEmbeddedDocumentExtractor(context);
                    object(block, extractor, xhtml);
                }
                default -> {
                    // a kind of block this parser does not know yet: nothing to show for it
                }
            }
        }
    }

    private static void paragraphs(String text, XHTMLContentHandler xhtml) throws SAXException {
        for (String line : LINE_END.split(text)) {
            if (!line.isEmpty()) xhtml.element("p", line);
        }
    }

    private static void table(JsonNode table, XHTMLContentHandler xhtml) throws SAXException {
        xhtml.startElement("table");
        // A database's columns are its field names; a sheet's are only letters, not content.
        if ("database".equals(table.path("kind").asText())) row(table.path("columns"), "th", xhtml);
        for (JsonNode cells : table.path("rows")) row(cells, "td", xhtml);
        xhtml.endElement("table");
    }

    private static void row(JsonNode cells, String cell, XHTMLContentHandler xhtml) throws SAXException {
        xhtml.startElement("tr");
        for (JsonNode value : cells) xhtml.element(cell, value.asText());
        xhtml.endElement("tr");
    }

    /**
     * Hands the object's stored bytes to Tika as an embedded document of its own, then writes the
     * text kln2txt read from the object where the object stands: Tika's parsers find no text in
     * these packaged objects, and the text is part of what the page shows.
     */
    private static void object(JsonNode block, EmbeddedDocumentExtractor extractor, XHTMLContentHandler xhtml)
            throws SAXException, IOException {
        embed(block, extractor, xhtml);
        paragraphs(block.path("text").asText(), xhtml);
    }

    private static void embed(JsonNode block, EmbeddedDocumentExtractor extractor, XHTMLContentHandler xhtml)
            throws SAXException, IOException {
        byte[] bytes = Base64.getDecoder().decode(block.path("data").asText());
        Metadata metadata = new Metadata();
        metadata.set(TikaCoreProperties.RESOURCE_NAME_KEY, "object" + block.path("number").asInt());
        metadata.set(TikaCoreProperties.EMBEDDED_RESOURCE_TYPE,
                TikaCoreProperties.EmbeddedResourceType.INLINE.toString());
        metadata.set(Metadata.CONTENT_LENGTH, Integer.toString(bytes.length));
        if (!extractor.shouldParseEmbedded(metadata)) return;
        try (TikaInputStream stream = TikaInputStream.get(bytes)) {
            extractor.parseEmbedded(stream, new EmbeddedContentHandler(xhtml), metadata, true);
        }
    }
}
