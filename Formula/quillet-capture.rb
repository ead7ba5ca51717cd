# Homebrew formula of quillet-capture. This repository is its own tap:
#   brew tap quillet/quillet-capture https://github.com/quillet/quillet-capture
#   brew install quillet/quillet-capture/quillet-capture
# At every release, after the tag is pushed: set the url's version and the sha256 that
# `scripts/release-archive --published vX.Y.Z` prints for the archive GitHub serves.
class QuilletCapture < Formula
  desc "Capture agent: voice recordings to transcribed Markdown notes"
  homepage "https://github.com/quillet/quillet-capture"
  url "https://github.com/quillet/quillet-capture/archive/refs/tags/v1.7.3.tar.gz"
  sha256 "619f7fd369bb706776ed8dccda3ca656df6f067f97ae75e3e6bf6c06d6bd4665"
  license "MIT"
  head "https://github.com/quillet/quillet-capture.git", branch: "main"

  # asio and nlohmann-json are headers only; simdjson and yaml-cpp are libraries the program links.
  # macOS provides libcurl, uuid, SQLite (the Voice Memos library is read with it), the
  # Keychain, launchd and afinfo.
  depends_on "asio" => :build
  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "nlohmann-json" => :build
  depends_on "pkg-config" => :build
  depends_on :macos
  depends_on "simdjson"
  depends_on "yaml-cpp"

  uses_from_macos "sqlite"

  def install
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja",
           "-DQUILLET_TESTS=OFF", "-DQUILLET_BENCH=OFF", *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  # No service block: `quillet-capture install` writes and loads its own LaunchAgent
  # (~/Library/LaunchAgents/se.Brannick.quillet.capture.plist) for the program it is run
  # from; run from this version's folder in the Cellar, it records Homebrew's stable
  # <prefix>/opt/quillet-capture/bin/quillet-capture instead, so the agent runs each upgraded version. A
  # `brew services` agent beside it would be a second agent on the same state, and one
  # instead of it would lose what `install` does (removing the predecessor's agent, the
  # owner-only output file, the checks of where the program lives).
  def caveats
    <<~EOS
      To capture in the background from login on, run:
        quillet-capture setup
        quillet-capture pair
        quillet-capture install
      and grant Full Disk Access to the program that `quillet-capture status` names
      (System Settings > Privacy & Security), so that it can read Voice Memos.
      The agent runs #{opt_bin}/quillet-capture, which follows every upgrade; after
      an upgrade grant the new program Full Disk Access and its Keychain access again.
    EOS
  end

  test do
    assert_equal version.to_s, shell_output("#{bin}/quillet-capture version").strip

    # A scratch home: settings, preferences and token stay in the test's folder.
    ENV["HOME"] = testpath
    ENV["CFFIXED_USER_HOME"] = testpath
    ENV["QUILLET_TOKEN_STORE"] = "file"
    output = shell_output("#{bin}/quillet-capture setup --vault #{testpath}/vault --no-upload")
    assert_match "Saved #{testpath}/Library/Application Support/quillet/settings.json", output
    assert_predicate testpath/"vault/_inbox", :directory?
    assert_match "vault:       #{testpath}/vault", shell_output("#{bin}/quillet-capture status")
  end
end
