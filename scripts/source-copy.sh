# shellcheck shell=sh
# Sourced by the scripts beside it.

# copy_source CHECKOUT FOLDER: makes FOLDER, with what a source package has: the checkout and packaging/debian as debian.
copy_source() {
    mkdir "$2"
    # Not through a pipe, which would hide that the first of the two has failed.
    tar --create --file "$2.tar" --directory "$1" --exclude=./build --exclude=./.git --exclude=./debian .
    tar --extract --file "$2.tar" --directory "$2"
    rm "$2.tar"
    cp -r "$1/packaging/debian" "$2/debian"
}
