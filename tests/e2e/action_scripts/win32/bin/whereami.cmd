@echo off
echo bin
