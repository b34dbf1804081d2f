import java.io.IOException;
import java.net.URI;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Iterator;
import java.util.jar.JarOutputStream;
import java.util.stream.Stream;
import java.util.zip.Deflater;
import java.util.zip.ZipEntry;

/**
 * Writes the java.base classes of the running JDK into a jar that ProGuard 6 takes as its library:
 * that ProGuard reads neither jmods nor class files newer than Java 13, so every class is marked
 * as Java 8 (major version 52). ProGuard reads a library class for its name, hierarchy and member
 * signatures only, which the mark leaves as they are.
 *
 * <pre>java tools/lib/JdkLibraryJar.java OUT.jar</pre>
 */
public final class JdkLibraryJar {
    private static final int JAVA_8 = 52;

    public static void main(String[] args) throws IOException {
        Path base = FileSystems.getFileSystem(URI.create("jrt:/")).getPath("/modules/java.base");
        try (JarOutputStream jar = new JarOutputStream(Files.newOutputStream(Paths.get(args[0])));
             Stream<Path> files = Files.walk(base)) {
            // Stored, not deflated: written and read again at once, so speed is all that counts.
            jar.setLevel(Deflater.NO_COMPRESSION);
            Iterator<Path> classes =
                    files.filter(p -> p.toString().endsWith(".class") && !p.endsWith("module-info.class")).iterator();
            while (classes.hasNext()) {
                Path file = classes.next();
                byte[] bytes = Files.readAllBytes(file);
                // After the magic number: the minor version, then the major, both big-endian.
                bytes[6] = (byte) (JAVA_8 >> 8);
                bytes[7] = (byte) JAVA_8;
                jar.putNextEntry(new ZipEntry(base.relativize(file).toString()));
                jar.write(bytes);
            }
        }
    }
}
