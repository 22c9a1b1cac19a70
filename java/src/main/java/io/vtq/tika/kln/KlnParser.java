package io.vtq.tika.kln;

import com.fasterxml.jackson.databind.JsonNode;
import com.fasterxml.jackson.databind.node.ObjectNode;

import java.io.Closeable;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.util.Base64;
import java.util.Set;

import org.apache.tika.config.Field;
import org.apache.tika.exception.TikaException;
import org.apache.tika.io.TikaInputStream;
import org.apache.tika.metadata.Metadata;
import org.apache.tika.metadata.TikaCoreProperties;
import org.apache.tika.mime.MediaType;
import org.apache.tika.parser.ParseContext;
import org.apache.tika.parser.Parser;
import org.apache.tika.sax.XHTMLContentHandler;
import org.xml.sax.ContentHandler;
import org.xml.sax.SAXException;

/**
 * KLN documents: text, sheet and database tables, properties and embedded OLE objects, converted
 * out of process by a pool of {@code kln2txt --serve} workers, so no native code enters the JVM.
 *
 * <p>Parameters (tika-config.xml): {@code kln2txtPath} (default: the system property or environment
 * variable {@code KLN2TXT}, else {@code kln2txt} on the PATH), {@code poolSize} (2),
 * {@code timeoutMillis} per document (120000, below tika-server's own task timeout) and
 * {@code refuseObjects} (false: a document carrying embedded objects is converted; true: refused).
 */
public class KlnParser implements Parser, Closeable {
    public static final MediaType KLN = MediaType.application("x-kln");
    private static final Set<MediaType> TYPES = Set.of(KLN);
    private static final long serialVersionUID = 1L;

    private String kln2txtPath = defaultKln2txt();
    private int poolSize = 2;
    private long timeoutMillis = 120_000;
    private boolean refuseObjects;
    private transient ServePool pool;

    @Field
    public void setKln2txtPath(String path) {
        kln2txtPath = path;
    }

    @Field
    public void setPoolSize(int size) {
        poolSize = size;
    }

    @Field
    public void setTimeoutMillis(long millis) {
        timeoutMillis = millis;
    }

    @Field
    public void setRefuseObjects(boolean refuse) {
        refuseObjects = refuse;
    }

    public String getKln2txtPath() {
        return kln2txtPath;
    }

    @Override
    public Set<MediaType> getSupportedTypes(ParseContext context) {
        return TYPES;
    }

    @Override
    public void parse(InputStream stream, ContentHandler handler, Metadata metadata, ParseContext context)
            throws IOException, SAXException, TikaException {
        JsonNode answer = pool().call(request(stream, metadata));
        metadata.set(Metadata.CONTENT_TYPE, KLN.toString());
        KlnContent.properties(answer, metadata);
        XHTMLContentHandler xhtml = new XHTMLContentHandler(handler, metadata);
        xhtml.startDocument();
        KlnContent.body(answer, xhtml, context);
        xhtml.endDocument();
        checkOutcome(answer);
    }

    /**
     * What the document gave is in the output already; a document that failed also fails its parse,
     * so the host records the failure (a recursive parse keeps the partial content beside it).
     */
    private static void checkOutcome(JsonNode answer) throws TikaException {
        switch (answer.path("status").asText()) {
            case "ok", "no_text", "truncated" -> {
            }
            default -> throw new TikaException("kln2txt: " + answer.path("message").asText()
                    + " (" + answer.path("status").asText() + ", " + answer.path("code").asInt() + ")");
        }
    }

    /** The document by path when it is a file already, else its bytes. */
    private ObjectNode request(InputStream stream, Metadata metadata) throws IOException {
        // The id goes first: a worker that rejects a request still echoes what it read before the fault.
        ObjectNode request = ServePool.JSON.createObjectNode().put("id", 0);
        TikaInputStream tis = TikaInputStream.cast(stream);
        if (tis != null && tis.hasFile()) {
            request.put("path", tis.getFile().getAbsolutePath());
        } else {
            request.put("data", Base64.getEncoder().encodeToString(stream.readAllBytes()));
            String name = metadata.get(TikaCoreProperties.RESOURCE_NAME_KEY);
            if (name != null) request.put("name", name);
        }
        request.putObject("options").put("ole", refuseObjects ? "refuse" : "extract").put("ole_continue", true);
        // The document in order: paragraphs, tables, and objects with their bytes and text.
        return request.put("text", false).put("blocks", true).put("tables", true).put("objects", true);
    }

    private synchronized ServePool pool() {
        if (pool == null) pool = new ServePool(kln2txtPath, poolSize, timeoutMillis);
        return pool;
    }

    /** Ends the workers; the next document starts new ones. */
    @Override
    public synchronized void close() {
        if (pool != null) pool.close();
        pool = null;
    }

    static String defaultKln2txt() {
        for (String configured : new String[] {System.getProperty("KLN2TXT"), System.getenv("KLN2TXT")}) {
            if (configured != null && !configured.isBlank()) return configured;
        }
        String path = System.getenv("PATH");
        if (path != null) {
            for (String dir : path.split(File.pathSeparator)) {
                File candidate = new File(dir, "kln2txt");
                if (!dir.isEmpty() && candidate.canExecute()) return candidate.getPath();
            }
        }
        return "kln2txt";
    }
}
