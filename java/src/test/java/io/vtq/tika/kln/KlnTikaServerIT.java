package io.vtq.tika.kln;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.fasterxml.jackson.databind.JsonNode;
import com.fasterxml.jackson.databind.ObjectMapper;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * The shaded jar in the real tika-server-standard, configured through tika-config.xml, on a free
 * loopback port; the server (and its forked child) is stopped whatever happens.
 */
class KlnTikaServerIT {
    // Not the parser's mapper: the integration test runs against the jar, where Jackson is relocated.
    private static final ObjectMapper JSON = new ObjectMapper();
    private static final HttpClient HTTP = HttpClient.newBuilder().connectTimeout(Duration.ofSeconds(5)).build();
    private static Process server;
    private static Path log;
    private static URI base;

    @BeforeAll
    static void start() throws Exception {
        Samples.requireKln2txt();
        Path jar = Path.of(System.getProperty("kln.jar"));
        Path dir = Files.createDirectories(jar.resolveSibling("tika-server-it"));
        Path config = dir.resolve("tika-config.xml");
        Files.writeString(config, """
                <?xml version="1.0" encoding="UTF-8"?>
                <properties>
                  <parsers>
                    <parser class="org.apache.tika.parser.DefaultParser">
                      <parser-exclude class="io.vtq.tika.kln.KlnParser"/>
                    </parser>
                    <parser class="io.vtq.tika.kln.KlnParser">
                      <params>
                        <param name="kln2txtPath" type="string">%s</param>
                        <param name="poolSize" type="int">2</param>
                      </params>
                    </parser>
                  </parsers>
                </properties>
                """.formatted(Path.of(Samples.KLN2TXT).toAbsolutePath()));
        int port;
        try (ServerSocket probe = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            port = probe.getLocalPort();
        }
        base = URI.create("http://127.0.0.1:" + port + "/");
        log = dir.resolve("server.log");
        server = new ProcessBuilder(Path.of(System.getProperty("java.home"), "bin", "java").toString(),
                "-cp", System.getProperty("tika.server.jar") + java.io.File.pathSeparator + jar,
                "org.apache.tika.server.core.TikaServerCli", "-h", "127.0.0.1", "-p", Integer.toString(port),
                "-c", config.toString())
                .redirectErrorStream(true).redirectOutput(log.toFile()).start();
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(90);
        while (System.nanoTime() < deadline) {
            if (!server.isAlive()) fail("tika-server ended: " + Files.readString(log));
            try {
                if (send("version", "GET", null, "text/plain").statusCode() == 200) return;
            } catch (IOException notYet) {
                // not listening yet
            }
            Thread.sleep(500);
        }
        fail("tika-server did not answer within 90 s: " + Files.readString(log));
    }

    @AfterAll
    static void stop() throws InterruptedException {
        if (server == null) return;
        List<ProcessHandle> children = server.descendants().toList();
        server.destroy();
        if (!server.waitFor(20, TimeUnit.SECONDS)) server.destroyForcibly().waitFor(10, TimeUnit.SECONDS);
        children.forEach(ProcessHandle::destroyForcibly);
    }

    private static HttpResponse<String> send(String endpoint, String method, Path document, String accept)
            throws IOException, InterruptedException {
        HttpRequest.Builder request = HttpRequest.newBuilder(base.resolve(endpoint)).timeout(Duration.ofSeconds(60))
                .header("Accept", accept);
        request.method(method, document == null ? HttpRequest.BodyPublishers.noBody()
                : HttpRequest.BodyPublishers.ofFile(document));
        HttpResponse<String> response = HTTP.send(request.build(), HttpResponse.BodyHandlers.ofString());
        assertEquals(200, response.statusCode(), () -> endpoint + ": " + response.body());
        return response;
    }

    private static JsonNode json(String endpoint, String sample) throws Exception {
        return JSON.readTree(send(endpoint, "PUT", Samples.path(sample), "application/json").body());
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource(delimiter = '|', value = {
        "letter    | 新年のご挨拶 / New Year greetings         | correspondence | Dear Mr. Brown,",
        "budget    | 2018年度 第1四半期 予算                    | finance        | 光熱費",
        "notice    | 大阪会議のご案内 / Osaka meeting notice    | notice         | See the floor plan and the checklist below.",
        "addresses | 住所録 / Address book                      | address book   | 10 Fleet Street, London",
    })
    void textAndMetadata(String sample, String title, String docClass, String fragment) throws Exception {
        String text = send("tika", "PUT", Samples.path(sample), "text/plain").body();
        assertTrue(text.contains(fragment), text);
        JsonNode meta = json("meta", sample);
        assertEquals("application/x-kln", meta.path("Content-Type").asText());
        assertEquals(title, meta.path("dc:title").asText());
        assertEquals(docClass, meta.path("kln:class").asText());
    }

    @Test
    void rmetaListsTheEmbeddedObjects() throws Exception {
        JsonNode entries = json("rmeta/text", "notice");
        String notice = entries.get(0).path("X-TIKA:content").asText();
        assertTrue(notice.contains("See the floor plan"), notice);
        assertTrue(notice.contains("Venue: Osaka International Convention Center"), notice);
        assertTrue(notice.contains("Bring: business cards"), notice);
        assertEquals(3, entries.size(), entries.toString());
        for (int i = 1; i <= 2; i++) {
            JsonNode object = entries.get(i);
            assertEquals("/object" + i, object.path("X-TIKA:embedded_resource_path").asText(), object.toString());
            assertTrue(object.path("Content-Type").asText().startsWith("application/x-tika-msoffice"), object.toString());
        }
    }
}
