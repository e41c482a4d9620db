# The examples with the camera's real keys in place of the simulator's processes, and the service before them. The file
# is the memory that the media library's stand-in maps.
truncate -s 67174400 /dev/shm/camera_phys.0
mkdir -p /opt/params /tmp/pictures
ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=640x480 -frames:v 20 -pix_fmt yuvj420p "/tmp/pictures/%02d.jpg"
"$build/uvc_gadget" >>$out/service.txt 2>&1 &
service=$!
sleep 1
"$build/system_server" 2>>$out/errors.txt | "$build/encoder" 640x480 /tmp/pictures/*.jpg 2>>$out/errors.txt &
check "camera appears" wait_until 20 node_answers
check "first pictures" examples_stream
check "a control, read anew" examples_obey
check "service ends" end_service
